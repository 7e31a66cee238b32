// The tests' certificates (a test CA, a server certificate for localhost and
// 127.0.0.1 and a client certificate signed by it, and another CA), written to temporary files once.
#ifndef WISOCK_TESTS_TEST_PKI_H
#define WISOCK_TESTS_TEST_PKI_H

#include <string>

struct TestFiles {
    std::wstring ca, otherCa, serverCert, serverKey, clientCert, clientKey;
};
const TestFiles& Files();

// Servers use the test certificate and clients trust the test CA, with the
// checks of a real deployment on (SEALKIT_VERIFY and SEALKIT_SERVER_NAME
// unset). Takes effect at the next OPENSSL_init.
void UseTestCertificates();

#endif
