#!/usr/bin/env bash
# Backs up the changed blocks of a real ext4 image, here and to a server over TLS, without root and without mounting
# anything, and proves the replicas. usage: demo.sh PROGRAM SERVER-PROGRAM
set -euo pipefail
program=$(readlink -f "$1")
server_program=$(readlink -f "$2")
make_certificates=$(readlink -f "$(dirname "$0")/../make_certificates.sh")
PATH=$PATH:/usr/sbin:/sbin # mkfs and its kin, for users who are not root
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }
show() { echo "$ incremental_backup $*" && "$program" "$@"; }

# start_server ARGUMENT...: in the background; sets $server, its process, and $port.
start_server() {
    "$server_program" --certificate-store certificates/server "$@" >server.log 2>&1 &
    server=$!
    until port=$(sed -n 's/^Listening on 127.0.0.1:\([0-9]*\)$/\1/p' server.log) && [ -n "$port" ]; do
        kill -0 "$server" 2>/dev/null || { cat server.log >&2 && return 1; }
        sleep 0.05
    done
    echo "$ backup_server --certificate-store certificates/server $* &"
}

# fails ARGUMENT...: the backup must fail, and the server's replica must be what it was.
fails() {
    local status=0
    show --previous old.img --current new.img --server "127.0.0.1:$port" "$@" >client.log 2>&1 || status=$?
    grep '^incremental_backup:' client.log
    [ "$status" -ne 0 ] || { echo "that should have failed" >&2 && return 1; }
    cmp old.img remote.img
    echo "Exit status $status; the server's replica is as it was."
}

step "1. A volume of 256 MiB with real files"
mkdir -p files/documents files/mail
head -c 20M /dev/urandom >files/documents/photos.bin
seq 1 500000 >files/documents/ledger.txt
for i in $(seq 1 200); do echo "Message $i" >"files/mail/$i.eml"; done
mkfs.ext4 -q -b 4096 -d files old.img 256M
cp --sparse=always old.img new.img

step "2. A day goes by: files are added, rewritten and deleted, and a snapshot file grows"
seq 250000 900000 >ledger.txt
head -c 5M /dev/urandom >video.bin
head -c 9M /dev/urandom >snapshot.cow
debugfs -w -f /dev/stdin new.img >/dev/null 2>debugfs.log <<'EOT'
rm documents/ledger.txt
write ledger.txt documents/ledger.txt
write video.bin documents/video.bin
write snapshot.cow snapshot.cow
rm mail/17.eml
rm mail/18.eml
EOT
e2fsck -fn new.img >/dev/null 2>&1
if cmp -s old.img new.img; then echo "nothing changed" >&2 && exit 1; fi

step "3. The backup sizes the snapshot's file, carries over what changed, and reports"
cat >agent.json <<'EOT'
{"volumes": {"sda1": {"cowFileSizeMiB": 24, "autoExpand": {"reservedSpaceMiB": 32}}}}
EOT
cat agent.json
show --previous old.img --current new.img --replica replica.img \
    --config agent.json --volume sda1 --log backup.log --report report.zip

step "4. The proof"
cmp new.img replica.img && echo "cmp: the replica equals the volume, byte for byte"
e2fsck -fn replica.img
debugfs -R 'cat documents/ledger.txt' replica.img 2>/dev/null | cmp - ledger.txt
echo "The day's ledger was read back from the replica."

step "5. The report, unpacked again"
unzip -q report.zip -d report
ls -l report
cmp report/backup.log <(head -n "$(wc -l <report/backup.log)" backup.log)
head -n 4 report/backup.log

step "6. The same without the snapshot's own file"
debugfs -R 'blocks snapshot.cow' new.img 2>/dev/null | tr ' ' '\n' | awk 'NF {
    if ($1 == end) { end++ } else { if (end) print "[" start ", " end ")"; start = $1; end = $1 + 1 }
} END { print "[" start ", " end ")" }' >ranges.txt
cat ranges.txt
show --previous old.img --current new.img --replica replica2.img --exclude ranges.txt
debugfs -R 'cat documents/ledger.txt' replica2.img 2>/dev/null | cmp - ledger.txt
if debugfs -R 'cat snapshot.cow' replica2.img 2>/dev/null | cmp -s - snapshot.cow; then
    echo "the snapshot's file was copied" >&2 && exit 1
fi
echo "The ledger is in the replica, the snapshot's file is not."

step "7. The blocks of a file, in the form that --exclude takes"
if show --print-extents new.img >extents.txt; then head -n 5 extents.txt; else echo "(this file system tells none)"; fi

step "8. To a server, over TLS, both ends with certificates that were made just now"
"$make_certificates" certificates
export SSL_CERT_FILE=$PWD/certificates/certificate.pem # the authority that this machine is to trust
cp --sparse=always old.img remote.img
start_server --replica remote.img
show --previous old.img --current new.img --server "127.0.0.1:$port" --certificate-store certificates/client \
    --bandwidth 800000000
cmp new.img remote.img && echo "cmp: the server's replica equals the volume, byte for byte"
e2fsck -fn remote.img
cp --sparse=always old.img remote.img

step "9. A client with another authority's certificate"
"$make_certificates" stranger
fails --certificate-store stranger/client
tail -n 1 server.log

step "10. A server that dies half-way"
disown "$server" # the shell need not tell
(sleep 1 && kill -KILL "$server") &
fails --certificate-store certificates/client --bandwidth 40000000
wait

step "11. A server whose disk is full, for which the file size limit stands in"
start_server --replica remote.img
prlimit --pid "$server" --fsize=$((100 << 20))
fails --certificate-store certificates/client
kill "$server"

step "12. Every second, with a server that is started late, until SIGTERM"
cp --sparse=always old.img previous.img
(sleep 2 && exec "$server_program" --certificate-store certificates/server --port "$port" --replica remote.img) >/dev/null 2>&1 &
server=$!
"$program" --previous previous.img --current new.img --server "127.0.0.1:$port" \
    --certificate-store certificates/client --bandwidth 40000000 --every 1 >every.log 2>&1 &
agent=$!
echo "$ incremental_backup --previous previous.img ... --bandwidth 40000000 --every 1 &"
for ((i = 0; i < 300; ++i)); do
    ! grep -q '^Blocks:   0 of' every.log || break # the first one that had nothing to do
    sleep 0.1
done
kill -TERM "$agent"
wait "$agent"
cat every.log
cmp new.img remote.img && cmp new.img previous.img && echo "cmp: the server's replica equals the volume again"
kill "$server"
server=

step "13. What is known of this machine"
show --inventory inventory >/dev/null
show --inventory inventory
