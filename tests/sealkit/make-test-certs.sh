#!/usr/bin/env bash
# Makes the certificates of the Sealkit tests and writes them into
# test_certs.h as C string constants (the tests write them to temporary files).
#   trusted CA  -> server certificate for "localhost" (and 127.0.0.1, ::1) + key
#   trusted CA  -> client certificate (client auth) + key
#   other CA    -> trusts nothing the server shows
# Valid for 100 years, so the committed header doesn't expire.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

ec() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

ec ca.key
openssl req -x509 -new -key ca.key -sha256 -days 36500 -subj "/CN=Sealkit Test CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" -out ca.pem
ec other.key
openssl req -x509 -new -key other.key -sha256 -days 36500 -subj "/CN=Sealkit Other CA" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" -out other.pem
ec server.key
openssl req -new -key server.key -subj "/CN=localhost" -out server.csr
printf 'subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' > ext.cnf
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 36500 -sha256 \
  -extfile ext.cnf -out server.pem 2>/dev/null

ec client.key
openssl req -new -key client.key -subj "/CN=Sealkit Test Client" -out client.csr
printf 'basicConstraints=CA:FALSE\nextendedKeyUsage=clientAuth\n' > client.cnf
openssl x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 36500 -sha256 \
  -extfile client.cnf -out client.pem 2>/dev/null

constant() {  # name file
  echo "const char* const $1 ="
  sed 's/.*/    "&\\n"/' "$2"
  echo "    ;"
}
{
  echo "// Made by make-test-certs.sh; do not edit."
  echo "#ifndef SEALKIT_TEST_CERTS_H"
  echo "#define SEALKIT_TEST_CERTS_H"
  echo
  constant kTestCaPem ca.pem
  constant kOtherCaPem other.pem
  constant kServerCertPem server.pem
  constant kServerKeyPem server.key
  constant kClientCertPem client.pem
  constant kClientKeyPem client.key
  echo
  echo "#endif"
} > "$here/test_certs.h"
