#!/bin/sh
# cut.sh SYSTEM,AGE,SEED,ACKED,WHEN,STORES: what a power cut left is checked, then changes are made until the next one.
# AGE is fresh for a new file system, anew for a new store on it, kept for both as they are. ACKED changes and STORES
# new stores were acknowledged. WHEN it is `creation`, stores are made, else changes of one.
# shellcheck source-path=SCRIPTDIR source=common.sh
. /common.sh

# Each new store got a text of its own. One behind the acknowledged ones may be absent, refused, empty, or whole.
check_stores() {
  number=1 fate=absent
  while [ $number -le "$stores" ] || [ -e "/mnt/made.$number" ]; do
    text=$(try whole_value "/mnt/made.$number")
    case $?,$text in
      "0,store $number") fate=made ;;
      0,) fate=empty ;;
      2,) fate=refused ;;
      *) die "store $number: '$text'" ;;
    esac
    [ $number -gt "$stores" ] || [ $fate = made ] || die "store $number of $stores: $fate"
    [ $number -gt "$stores" ] || fate=absent
    number=$((number + 1))
  done
  say "VERDICT good stores=$stores under_way=creation: $fate"
}

make_stores() {
  number=1
  while try whole_value "/mnt/made.$number" "store $number" >/dev/null; do
    say "C $number"
    number=$((number + 1))
  done
}

IFS=, read -r system age seed acked when stores <<END
$1
END
store=/mnt/cut.kvs
flash_up "$system" "$age"
[ "$age" != anew ] || rm -f $store
say "MOUNTED $(grep ' /mnt ' /proc/mounts)"
[ "$stores" = 0 ] || check_stores
rm -f /mnt/made.*
if [ "$age" = kept ]; then
  quillctl store verify $store >/tmp/faults 2>&1
  ! grep -q 'second entry' /tmp/faults || say TWICE
  try powercut verify $store "$seed" "$acked" || die "what is there is wrong"
fi
complaints | sed 's/^/KERNEL /' | tail -n 3
if [ "$when" = creation ]; then make_stores; else try powercut run $store "$seed" $((acked + 1)); fi
die "the changes ended"
