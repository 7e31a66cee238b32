#!/usr/bin/env bash
# Makes the certificates of the Sealkit tests into certs/ (the build compiles
# them in; the tests write them to temporary files).
#   trusted CA  -> server certificate for "localhost" (and 127.0.0.1, ::1) + key
#   trusted CA  -> client certificate (client auth) + key
#   other CA    -> trusts nothing the server shows
# Valid for 100 years, so the committed files don't expire.
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

mkdir -p "$here/certs"
cp ca.pem other.pem server.pem server.key client.pem client.key "$here/certs/"
mv "$here/certs/other.pem" "$here/certs/other-ca.pem"
