#!/usr/bin/env bash
# Backs up the changed blocks of a real ext4 image, without root and without mounting anything, and proves the
# replica. usage: demo.sh PROGRAM
set -euo pipefail
program=$(readlink -f "$1")
PATH=$PATH:/usr/sbin:/sbin # mkfs and its kin, for users who are not root
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }

step "1. A volume of 256 MiB with real files"
mkdir -p files/documents files/mail
head -c 20M /dev/urandom >files/documents/photos.bin
seq 1 500000 >files/documents/ledger.txt
for i in $(seq 1 200); do echo "Message $i" >"files/mail/$i.eml"; done
mkfs.ext4 -q -d files old.img 256M
cp --sparse=always old.img new.img

step "2. A day goes by: files are added, rewritten and deleted"
seq 250000 900000 >ledger.txt
head -c 5M /dev/urandom >video.bin
debugfs -w -f /dev/stdin new.img >/dev/null 2>debugfs.log <<'EOT'
rm documents/ledger.txt
write ledger.txt documents/ledger.txt
write video.bin documents/video.bin
rm mail/17.eml
rm mail/18.eml
EOT
e2fsck -fn new.img >/dev/null 2>&1
if cmp -s old.img new.img; then echo "nothing changed" >&2 && exit 1; fi

step "3. The backup carries over what changed"
echo "$ incremental_backup --previous old.img --current new.img --replica replica.img"
"$program" --previous old.img --current new.img --replica replica.img

step "4. The proof"
cmp new.img replica.img && echo "cmp: the replica equals the volume, byte for byte"
e2fsck -fn replica.img
debugfs -R 'cat documents/ledger.txt' replica.img 2>/dev/null | cmp - ledger.txt
echo "The day's ledger was read back from the replica."
