#!/bin/sh
# certificates.sh NAMES: makes, in this directory, a CA and a certificate for the server.
# NAMES are what programs connect to, as DNS:robot1.lan,IP:192.168.1.5
set -eu
names=${1:?usage: certificates.sh DNS:NAME,IP:ADDRESS...}
umask 077

# [make]
# The CA. ca.pem goes to every machine, ca.key nowhere: who has it can be any server.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 3650 \
  -subj "/CN=robots" -keyout ca.key -out ca.pem
# The server's, good for the names alone.
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
  -subj "/CN=nats" -keyout server.key -out server.csr
echo "subjectAltName=$names" > server.ext
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 825 \
  -extfile server.ext -out server.pem
# [make end]
rm server.csr server.ext
chmod 644 ca.pem server.pem
