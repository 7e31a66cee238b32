#include "support/test_pki.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdio>

#include "sealkit/test_certs.h"

namespace {

std::wstring WriteTempFile(const wchar_t* name, const char* text)
{
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    std::wstring path = std::wstring(folder) + L"wisock-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + name;
    FILE* file = _wfopen(path.c_str(), L"wb");
    if (file) {
        fputs(text, file);
        fclose(file);
    }
    return path;
}

struct TempFiles {
    TestFiles files;
    TempFiles()
    {
        files.ca = WriteTempFile(L"ca.pem", kTestCaPem);
        files.otherCa = WriteTempFile(L"other-ca.pem", kOtherCaPem);
        files.serverCert = WriteTempFile(L"server.pem", kServerCertPem);
        files.serverKey = WriteTempFile(L"server.key", kServerKeyPem);
        files.clientCert = WriteTempFile(L"client.pem", kClientCertPem);
        files.clientKey = WriteTempFile(L"client.key", kClientKeyPem);
    }
    ~TempFiles()
    {
        for (const std::wstring* path :
             {&files.ca, &files.otherCa, &files.serverCert, &files.serverKey, &files.clientCert, &files.clientKey})
            DeleteFileW(path->c_str());
    }
};

}  // namespace

const TestFiles& Files()
{
    static TempFiles temp;
    return temp.files;
}

void UseTestCertificates()
{
    const TestFiles& files = Files();
    SetEnvironmentVariableW(L"SEALKIT_CERT", files.serverCert.c_str());
    SetEnvironmentVariableW(L"SEALKIT_KEY", files.serverKey.c_str());
    SetEnvironmentVariableW(L"SEALKIT_CA", files.ca.c_str());
    SetEnvironmentVariableW(L"SEALKIT_VERIFY", NULL);
    SetEnvironmentVariableW(L"SEALKIT_SERVER_NAME", NULL);
    SetEnvironmentVariableW(L"SEALKIT_CLIENT_CA", NULL);
    SetEnvironmentVariableW(L"SEALKIT_CLIENT_CERT", NULL);
    SetEnvironmentVariableW(L"SEALKIT_CLIENT_KEY", NULL);
}
