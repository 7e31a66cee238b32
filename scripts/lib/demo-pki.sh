# A small certificate authority for the demo, the examples and the benchmark:
# a CA, and a server certificate it signs for localhost, 127.0.0.1 and ::1, made
# with the openssl tool once into a folder. demo_pki_export then points
# Sealkit's settings at them (as Windows paths, for programs under Wine), so
# that servers show a certificate the clients can check, with verification on.
#   source scripts/lib/demo-pki.sh; demo_pki_export <folder>
demo_pki_make() {
  local dir=$1 tmp
  # A folder made before the certificate named ::1 is made again.
  [ -s "$dir/server.pem" ] && [ -e "$dir/ipv6" ] && return 0
  [ -e "$dir" ] && rm -rf "$dir"
  # Made aside and renamed into place: tests running side by side may both
  # come here, and none may read a half-written file.
  mkdir -p "$(dirname "$dir")"
  tmp=$(mktemp -d "$dir.XXXXXX")
  (
    cd "$tmp"
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ca.key 2>/dev/null
    openssl req -x509 -new -key ca.key -sha256 -days 3650 -subj "/CN=wisock demo CA" \
      -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign" -out ca.pem
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out server.key 2>/dev/null
    openssl req -new -key server.key -subj "/CN=localhost" -out server.csr
    printf 'subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' > ext.cnf
    openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 3650 -sha256 \
      -extfile ext.cnf -out server.pem 2>/dev/null
    touch ipv6
  ) || { rm -rf "$tmp"; return 1; }
  mv -T "$tmp" "$dir" 2>/dev/null || rm -rf "$tmp"   # another run got there first
  [ -s "$dir/server.pem" ]
}

demo_pki_export() {
  local dir=$1
  demo_pki_make "$dir" || return 1
  SEALKIT_CERT=$(winepath -w "$dir/server.pem" 2>/dev/null)
  SEALKIT_KEY=$(winepath -w "$dir/server.key" 2>/dev/null)
  SEALKIT_CA=$(winepath -w "$dir/ca.pem" 2>/dev/null)
  export SEALKIT_CERT SEALKIT_KEY SEALKIT_CA
}
