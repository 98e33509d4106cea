#!/bin/sh
# Makes the TLS material of a test run in the directory $1: a private CA (ca.pem) and, signed by
# it, certificates (NAME.pem, NAME.key) for 127.0.0.1 and localhost (server), for another name
# (wrongname) and one that expired in 2020 (expired); and a self-signed one (selfsigned).
set -eu
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key"; }
request() { key "$1" && openssl req -new -key "$1.key" -subj "/CN=$1" -out "$1.csr"; }
key ca
openssl req -x509 -new -key ca.key -subj "/CN=Larkpost Test CA" -days 2 -out ca.pem
echo "subjectAltName=IP:127.0.0.1,DNS:localhost" >server.ext
echo "subjectAltName=DNS:mail.example.org" >wrongname.ext
for name in server wrongname; do
  request $name
  openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
    -extfile $name.ext -out $name.pem 2>/dev/null
done
# Only "openssl ca" sets both dates freely.
request expired
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=index\nnew_certs_dir=.\nserial=ca.srl\npolicy=p\n' >ca.cnf
printf 'default_md=sha256\n[p]\ncommonName=supplied\n' >>ca.cnf
: >index
openssl ca -batch -notext -config ca.cnf -cert ca.pem -keyfile ca.key -in expired.csr \
  -out expired.pem -startdate 20200101000000Z -enddate 20200102000000Z -extfile server.ext 2>/dev/null
key selfsigned
openssl req -x509 -new -key selfsigned.key -subj "/CN=127.0.0.1" -days 2 -out selfsigned.pem \
  -addext subjectAltName=IP:127.0.0.1
