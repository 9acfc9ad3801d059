#!/bin/sh
# store.sh KIND: hubd with its store on a new file system: settings, interfaces, its child, ends of both kinds, a log
# that rotates, and what all that takes of memory; at last another process takes all memory.
# shellcheck source-path=SCRIPTDIR source=common.sh
. /common.sh

memory() {
  row "hubd: resident, its own, threads" \
    "$(of_process "$hubd" VmRSS) KiB, $(of_process "$hubd" RssAnon) KiB, $(of_process "$hubd" Threads)"
  row "available of the machine" "$(available) KiB"
}

settings() {
  ctl load /router.conf >/tmp/acked || die load
  row "settings acknowledged" "$(wc -l </tmp/acked)"
  verified "compared" /router.conf
}

# is_up NAME KIND BRIDGE: whether hubd's table has that row.
is_up() { ctl interfaces | grep -qE "^$1 +$2 +up .* $3 "; }

network() {
  modprobe -a bridge veth || die "no modules of the network"
  ip link set lo up
  ip link add name mesh0 type bridge || die "no bridge"
  ip link set mesh0 up
  ctl pair leaf0 peer0 mesh0 || die "no pair"
  ctl pair leaf-port-00001 peer1 mesh0 || die "no second pair"
  until_so "the pairs are up" is_up leaf0 veth mesh0
  is_up leaf-port-00001 veth mesh0 || until_so "the second pair is up" is_up leaf-port-00001 veth mesh0
  until_so "the child sees them" grep -q '\[9006\].* 6 interfaces are up' "$log/hubd_0.log.txt"
  row "bridge with two pairs" "up, and the child sees 6 interfaces"
}

# hubd has been started with busybox's ip in front of the right one.
wrong_ip() {
  ! ctl pair leaf2 peer2 mesh0 || die "busybox's ip makes pairs?"
  grep -q "takes iproute2's ip" /tmp/err || die "no word of ip"
  row "where ip is busybox's" "$(sed -n 's/.*: refused, .*code 8: //p' /tmp/err)"
}

child_is() { ctl child status | grep -q "$1"; }

child() {
  ctl child stop | grep -q 'stopped, exit status 0' || die "the child was not stopped"
  ctl child start >/dev/null || die "the child was not started"
  kill -KILL "$(ctl child status | sed -n 's/.*pid \([0-9]*\),.*/\1/p')"
  until_so "the child is started again" child_is 'runs, .* start 3, [1-9]'
  row "child" "stopped by its word; killed, and started again"
}

rotation() {
  rounds=0
  try quillctl log set -s /tmp/hubd.sock hubd level D >/dev/null || die "log set"
  until [ -e "$log/hubd_1.log.txt" ]; do
    ctl verify /router.conf >/dev/null || die "verify while the log fills"
    rounds=$((rounds + 1))
    [ $rounds -lt 400 ] || die "the log did not rotate"
  done
  row "log in tmpfs" "rotated at $(stat -c %s "$log/hubd_1.log.txt") bytes"
}

# awk doubles a text until it is killed.
out_of_memory() {
  echo -1000 >/proc/self/oom_score_adj
  # shellcheck disable=SC2016 # the inner shell's
  sh -c 'echo 0 >/proc/self/oom_score_adj && exec "$@"' sh \
    busybox awk 'BEGIN { text = "0123456789abcdef"; for (;;) text = text text }' 2>/dev/null
  status=$?
  [ $status != 0 ] || die "memory did not run out"
  kill -0 "$hubd" || die "hubd was killed"
  verified "memory ran out beside it" /router.conf
}

row "available before" "$(available) KiB"
flash_up "$1" fresh
row "file system" "$(awk '$2 == "/mnt" { print $3 ", " $4 }' /proc/mounts | sed 's/,/, /g; s/  / /g'), $(free_on_flash) KiB free"
hubd_up
settings
memory
[ ! -e /sbin/ip ] || network
child
hubd_killed
mkdir /tmp/busybox
ln -s /bin/busybox /tmp/busybox/ip
PATH=/tmp/busybox:$PATH
hubd_up
PATH=${PATH#*:}
verified "after SIGKILL of hubd" /router.conf
[ ! -e /sbin/ip ] || wrong_ip
hubd_stopped
umount /mnt || die umount
mount_flash
hubd_up
verified "after unmount and mount" /router.conf
rotation
memory
! dmesg | grep -i 'out of memory' || die "memory was short"
out_of_memory
hubd_stopped
! complaints || die "the kernel complains"
row "ended" "in order, without a complaint of the kernel"
