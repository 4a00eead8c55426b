#!/usr/bin/env bash
# Makes certificates to try a backup server with, valid for a day: an authority, and certificate stores for the server
# 127.0.0.1 and for a client, in the folders "server" and "client". usage: make_certificates.sh FOLDER
set -euo pipefail
umask 077
mkdir -p "$1/server" "$1/client"
cd "$1"

# certificate FOLDER SUBJECT OPENSSL-ARGUMENT...
certificate() {
    local folder=$1 subject=$2
    shift 2
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj "$subject" \
        -keyout "$folder/private_key.pem" -out "$folder/certificate.pem" "$@" 2>openssl.log ||
        { cat openssl.log >&2 && return 1; }
    cp certificate.pem "$folder/trust_chain.pem"
}

certificate . "/CN=Authority"
issued=(-CA certificate.pem -CAkey private_key.pem -addext basicConstraints=critical,CA:FALSE)
certificate server "/CN=server" "${issued[@]}" -addext subjectAltName=IP:127.0.0.1
certificate client "/CN=12345/O=Example" "${issued[@]}"
