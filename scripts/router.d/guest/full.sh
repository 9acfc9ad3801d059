#!/bin/sh
# full.sh KIND: the store on a file system that something else has filled. Each put must be answered by what has
# happened to it: an acknowledged one is there after SIGKILL, a refused one names the reason.
# shellcheck source-path=SCRIPTDIR source=common.sh
. /common.sh

# fill BLOCK FILE
fill() { dd if=/dev/urandom of="/mnt/$2" bs="$1" >/dev/null 2>&1; }

# whole STATUS TEXT [NEW]: what the example of a value that must be whole says, and its status.
whole() {
  status=$1 want=$2
  shift 2
  text=$(try whole_value /mnt/whole.kvs "$@")
  [ "$?,$text" = "$status,$want" ] || die "the whole value: '$text', not '$want' with status $status"
}

# others FILE SETTINGS: the lines of the settings whose keys the file has not.
others() { awk -F = 'FILENAME == ARGV[1] { known[$1]; next } !($1 in known)' "$1" "$2"; }

again() {
  hubd_killed
  hubd_up
}

grep '^[^#]' /router.conf >/tmp/old
# Other letters, same lengths.
sed -e 'h; s/^[^=]*=//' -e 'y/abcdefghijklmnopqrstuvwxyz0123456789/bcdefghijklmnopqrstuvwxyza1234567890/' \
  -e 'x; s/=.*/=/; G; s/\n//' /tmp/old >/tmp/new
flash_up "$1" fresh
hubd_up
ctl load /tmp/old >/dev/null || die load
whole 0 before before
free=$(free_on_flash)
fill 65536 ballast
sync
fill 4096 ballast2
sync
row "filled" "$free KiB free before, $(free_on_flash) KiB now"

ctl load /tmp/new >/tmp/acked
refused=$(grep -c 'refused, .* code 5: not on disk: No space left on device' /tmp/err)
acked=$(wc -l </tmp/acked)
[ $((acked + refused)) = "$(wc -l </tmp/new)" ] || die "$acked acknowledged, $refused refused for room"
row "puts" "$acked acknowledged, $refused refused: $(grep -om 1 'not on disk: .*' /tmp/err)"
whole 1 before after
grep -q 'not stored: No space left on device' /tmp/err || die "no reason for the whole value"
whole 0 before
row "a whole value on it" "refused, and the one before stays"
verified "the daemon goes on, with the new values" /tmp/new
again
[ "$acked" = 0 ] || verified "after SIGKILL: the acknowledged ones" /tmp/acked
others /tmp/acked /tmp/old >/tmp/kept
ctl verify /tmp/kept >/tmp/verified
row "after SIGKILL: the refused ones, as before" "$(tail -n 1 /tmp/verified)"
# A refused change may have got to the disk with a later one: then it is whole, too.
sed -n 's/: another value$//p' /tmp/err >/tmp/changed
others /tmp/acked /tmp/new | awk -F = 'FILENAME == ARGV[1] { changed[$1]; next } $1 in changed' /tmp/changed - >/tmp/got
[ ! -s /tmp/got ] || verified "of these with the new value" /tmp/got

rm /mnt/ballast /mnt/ballast2
ctl load /tmp/new >/tmp/acked || die "load with room again: $(tail -n 1 /tmp/err)"
whole 0 after after
row "with room again" "$(wc -l </tmp/acked) acknowledged"
again
verified "after SIGKILL" /tmp/new
hubd_stopped
