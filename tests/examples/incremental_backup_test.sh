#!/usr/bin/env bash
# Runs the example as a user would, on good and on bad input.
# usage: incremental_backup_test.sh PROGRAM SERVER-PROGRAM MAKE-CERTIFICATES
set -euo pipefail
program=$1 server_program=$2 make_certificates=$3
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
export TMPDIR=$work # where the change bitmap goes

fail() {
    echo "FAILED: $*" >&2
    cat out err >&2
    exit 1
}

# run STATUS ARGUMENT...: the status must be that one, and bad input must give one line on stderr.
run() {
    local wanted=$1 status=0
    shift
    "$program" "$@" >out 2>err || status=$?
    [ "$status" -eq "$wanted" ] || fail "status $status instead of $wanted for: $*"
    [ "$wanted" -eq 0 ] || [ "$(wc -l <err)" -eq 1 ] || fail "not one line on stderr for: $*"
}

refuses() {
    local text=$1
    shift
    run 2 "$@"
    grep -qF -- "$text" err || fail "no \"$text\" for: $*"
}

replicates() {
    rm -f replica.img
    run 0 --previous old.img --current new.img --replica replica.img "$@"
    cmp -s new.img replica.img || fail "replica differs for: $*"
}

# Changes in the first block, in the middle, and in a last block that is not a whole one.
seq 1 500000 >old.img
truncate -s 3000001 old.img
cp old.img new.img
printf 'x' | dd of=new.img conv=notrunc status=none
head -c 100000 /dev/urandom | dd of=new.img bs=1 seek=1500000 conv=notrunc status=none
printf 'yz' | dd of=new.img bs=1 seek=2999999 conv=notrunc status=none

for arguments in "" "--lsb-first" "--block-size 512" "--block-size 4194304 --lsb-first"; do
    # shellcheck disable=SC2086  # a list of words
    replicates $arguments
done
replicates --block-size 4096
grep -q '^Ranges: *3$' out || fail "three ranges were changed"
grep -q '^Blocks: *2[67] of 733, 4096 bytes each$' out || fail "block count"
grep -qE '^Checksum: crc32c_(hw64|slice_8)$' out || fail "checksum routine"

# A replica from the last run is taken up where it was; a file that is no copy is left alone.
cp old.img replica.img
run 0 --previous old.img --current new.img --replica replica.img
cmp -s new.img replica.img || fail "an existing replica"
refuses 'is no copy of "old.img"' --previous old.img --current new.img --replica replica.img
cmp -s new.img replica.img || fail "a file that is no copy was touched"
run 0 --previous new.img --current new.img --replica replica.img
grep -q '^Ranges: *0$' out || fail "nothing changed"

# Blocks that are left out: the first one, and one beyond the image.
printf '[0, 1)\n\n[700, 900)\n' >ranges
replicates_but_for() {
    rm -f replica.img
    run 0 --previous old.img --current new.img --replica replica.img --exclude ranges "$@"
    cmp -s <(dd if=old.img bs=4096 count=1 status=none) <(dd if=replica.img bs=4096 count=1 status=none) ||
        fail "an excluded block was copied"
    cmp -s <(dd if=new.img bs=4096 skip=1 count=699 status=none) \
        <(dd if=replica.img bs=4096 skip=1 count=699 status=none) || fail "a block that is not excluded"
    grep -q '^Ranges: *1$' out || fail "one range is left"
}
replicates_but_for --block-size 4096
run 0 --previous new.img --current new.img --replica replica.img --exclude ranges # it is a copy but for those
for bad in '[1, 0)' '[1 2)' '[-1, 2)' '1, 2' '[1, 2) x' '[1, 99999999999999999999)'; do
    printf '[3, 4)\n%s\n' "$bad" >bad_ranges
    refuses "\"bad_ranges\", line 2: \"$bad\" is no range" --previous old.img --current new.img --replica r \
        --exclude bad_ranges
done

# Sizing, log and report; the report has what it says.
echo '{"volumes": {"new.img": {"cowFileSizeMiB": 64, "autoExpand": {"stepSizeMiB": 16}}}}' >agent.json
echo 'earlier' >log
rm -f replica.img
run 0 --previous old.img --current new.img --replica replica.img --config agent.json --log log --report report.zip
grep -q '^Snapshot: 10 MiB for new.img, grows by 16 MiB, leaves 1 MiB free$' out || fail "sizing"
grep -q 'Clamping to (10)$' out || fail "a warning belongs on the screen"
grep -q 'Found the' out && fail "the screen is not for DEBUG"
grep -qE '^[0-9TZ:.-]{24} [0-9T:.+-]{28} \[TID [0-9]{7,}\] \[DEBUG:\]    Found the volumes.new.img.cow' log || fail "log"
[ "$(head -n 1 log)" = earlier ] || fail "the log is added to"
unzip -q report.zip -d report
cmp -s report/backup.log <(head -n "$(wc -l <report/backup.log)" log) || fail "the report's log"
[ "$(stat -c %s report/changes.bitmap)" -eq 92 ] || fail "the report's bitmap"
grep -q '^Ranges: *3$' report/summary.txt || fail "the report's summary"
refuses '"volumes.new.img.cowFileSizeMiB" must be of type unsigned integer, not string' --previous old.img \
    --current new.img --replica r --config <(echo '{"volumes": {"new.img": {"cowFileSizeMiB": "64"}}}')
refuses 'is not valid JSON at byte 1' --previous old.img --current new.img --replica r --config new.img
refuses 'No such file' --previous old.img --current new.img --replica r --config missing.json
cp old.img replica.img
refuses 'Could not open zip archive no/report.zip' --previous old.img --current new.img --replica replica.img \
    --report no/report.zip

sync old.img
if "$program" --print-extents old.img >out 2>err; then
    grep -qE '^\[[0-9]+, [0-9]+\)$' out || fail "no ranges printed"
    cp out extents
    rm -f replica.img
    run 0 --previous old.img --current new.img --replica replica.img --exclude extents
else
    grep -q 'FIEMAP' err || fail "neither extents nor a reason" # not every file system tells extents
fi
refuses 'Failed to open handle to file "missing"' --print-extents missing

: >empty.img
run 0 --previous empty.img --current empty.img --replica empty_replica.img

# Bad input.
head -c 100 /dev/zero >small.img
mkfifo fifo
images=(--previous old.img --current new.img)
refuses 'required' --previous old.img --current new.img
refuses 'No such file' --previous missing.img --current new.img --replica r
refuses 'No such file' --previous old.img --current missing.img --replica r
refuses 'No such file' "${images[@]}" --replica no/such/directory/r
refuses 'not a regular file' --previous old.img --current fifo --replica r
refuses 'directory' "${images[@]}" --replica .
refuses 'sizes differ' --previous old.img --current small.img --replica r
refuses 'sizes differ' "${images[@]}" --replica small.img
for size in 0 3000 256 -4096 4k 36893488147419103232; do
    refuses 'power of two' "${images[@]}" --replica r --block-size "$size"
done
[ ! -e r ] || fail "bad input made a replica"
ln new.img same.img
refuses 'is the same file' "${images[@]}" --replica same.img
refuses 'is the same file' "${images[@]}" --replica old.img

# A disk that is full, for which the file size limit stands in.
(
    trap '' XFSZ
    ulimit -f 1024
    refuses 'failed: File too large' "${images[@]}" --replica full.img
    [ ! -e full.img ] || fail "half a copy was left behind"
)
cp old.img full.img
(
    trap '' XFSZ
    ulimit -f 2048
    refuses '"full.img" is incomplete, ' "${images[@]}" --replica full.img
    grep -qE 'incomplete, [0-9]+ of 2[67] changed blocks were written: .*File too large' err || fail "how far it got"
)

# A server over TLS.
"$make_certificates" tls
"$make_certificates" stranger
export SSL_CERT_FILE=$work/tls/certificate.pem
within() { # SECONDS COMMAND...: repeats it until it succeeds
    local tries=$(($1 * 20))
    shift
    until "$@"; do
        [ $((--tries)) -gt 0 ] || return 1
        sleep 0.05
    done
}
start_server() {
    [ -z "$server" ] || kill "$server"
    "$server_program" --certificate-store tls/server --replica remote.img >server.log 2>&1 &
    server=$!
    within 10 grep -q '^Listening' server.log || fail "no server"
    port=$(sed -n 's/^Listening on 127.0.0.1://p' server.log)
    remote=(--previous old.img --current new.img --server "127.0.0.1:$port" --certificate-store tls/client)
}
keeps_its_replica() {
    local text=$1
    shift
    "$program" "$@" >out 2>err && fail "not refused: $*"
    grep -qF -- "$text" err out || fail "no \"$text\" for: $*"
    cmp -s old.img remote.img || fail "the server's replica was touched for: $*"
}

start_server
run 0 "${remote[@]}" --bandwidth 4000000000
grep -q 'has no copy of old.img, so all is sent' out && cmp -s new.img remote.img || fail "a new replica at the server"
cp old.img remote.img
run 0 "${remote[@]}" --block-size 512 --report remote.zip
cmp -s new.img remote.img && ! grep -q 'so all is sent' out || fail "a replica at the server"
cp old.img remote.img
run 0 "${remote[@]}" --exclude ranges
cmp -s <(head -c 4096 old.img) <(head -c 4096 remote.img) || fail "an excluded block was sent"
cp old.img remote.img
echo 'no backup at all' | openssl s_client -quiet -connect "127.0.0.1:$port" -cert tls/client/certificate.pem \
    -key tls/client/private_key.pem >garbage 2>&1 || true
within 10 grep -q 'A client was given up: protocol error: message of type' server.log || fail "garbage"
keeps_its_replica 'alert unknown ca' "${remote[@]:0:6}" --certificate-store stranger/client
# the same address, by a name that the certificate does not have and that no /etc/hosts is needed for
keeps_its_replica 'certificate verify failed' "${remote[@]:0:4}" --server "127.1:$port" --certificate-store tls/client
prlimit --pid "$server" --fsize=3000001 # room for the copy
head -c 5000000 /dev/zero >larger.img
keeps_its_replica 'the server reports: ftruncate' --previous larger.img --current larger.img "${remote[@]:4}"
keeps_its_replica 'No such file' "${remote[@]:0:6}" --certificate-store nowhere
disown "$server" # the shell need not tell
(sleep 0.5 && kill -KILL "$server") &
keeps_its_replica 'is as it was, ' "${remote[@]}" --bandwidth 500000
wait
refuses "cannot reach 127.0.0.1:$port: Unable to check connect" "${remote[@]}" --patience 1 2>/dev/null
server=
(sleep 0.7 && exec "$server_program" --certificate-store tls/server --port "$port" --replica remote.img) >server.log 2>&1 &
server=$!
cp old.img previous.img
"$program" --previous previous.img "${remote[@]:2}" --every 1 >out 2>err &
agent=$!
within 20 grep -q '^Blocks: *0 of' out # after one that sent what had changed
kill -TERM "$agent"
wait "$agent" || fail "a stopped agent"
cmp -s new.img remote.img && cmp -s new.img previous.img || fail "repeated backups"
grep -q '^circuit breaker error' out && grep -q '^Sent: .* on average' out || fail "breaker and meter"
cp old.img previous.img
cp old.img remote.img
"$program" --previous previous.img "${remote[@]:2}" --every 9 --bandwidth 100000 >out 2>err &
agent=$!
within 10 grep -q '^SSL connection completed' out
kill -TERM "$agent"
wait "$agent" || fail "an agent that is stopped at work"
cmp -s old.img remote.img && cmp -s old.img previous.img || fail "stopped half-way"
run 0 --inventory inventory
grep -q "^Nothing was known so far: " out && grep -q "\"hostName\": \"$(uname -n)\"" out || fail "inventory"
run 0 --inventory inventory
grep -q "^Changes since the last time: " out || fail "changes of the inventory"

refuses 'requires --certificate-store' "${remote[@]:0:6}"
refuses '"h" is no server of the form host:port' "${remote[@]:0:4}" --server h --certificate-store tls/client

leftovers=$(find . -name 'changes_*')
[ -z "$leftovers" ] || fail "left behind: $leftovers"
echo "the example keeps its promises"
