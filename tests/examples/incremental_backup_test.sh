#!/usr/bin/env bash
# Runs the example as a user would, on good and on bad input.
# usage: incremental_backup_test.sh PROGRAM
set -euo pipefail
program=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
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

leftovers=$(find . -name 'changes_*')
[ -z "$leftovers" ] || fail "left behind: $leftovers"
echo "the example keeps its promises"
