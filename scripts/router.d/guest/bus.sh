#!/bin/sh
# The library beside a real broker: one that is killed again and again, a burst, and hubd with the command `ubus`.
# shellcheck source-path=SCRIPTDIR source=common.sh
. /common.sh

bus=/tmp/bus
readonly RESTARTS=6 EVENTS=50 BURST=2000

# in_world musl|glibc PROGRAM ARGUMENT...: one of ours, or broker and command, beside the libraries that are theirs.
in_world() {
  world=/opt/bus/$1 program=$2
  shift 2
  LD_LIBRARY_PATH=$world "$world/$program" "$@"
}

has() { [ "$(grep -c -- "$2" "$3" 2>/dev/null)" -ge "$1" ]; } # has COUNT PATTERN FILE

broker_up() {
  LD_LIBRARY_PATH=/opt/bus/glibc /opt/bus/glibc/ubusd -s $bus 2>/tmp/broker.err &
  broker=$!
  until_so "the broker comes up" in_world glibc ubus -s $bus list
}

broker_killed() {
  kill -KILL "$broker"
  wait "$broker"
}

# send COUNT: so many more events, which must come once each and in order.
send() {
  try in_world musl bus_probe send $bus $((sent + 1)) "$1" || die "no event was sent"
  sent=$((sent + $1))
  until_so "the events come" has $sent '' /tmp/heard
  seq $sent | cmp -s - /tmp/heard || die "events are missing, double or out of order"
}

# The broker asks for the name of a client's user.
echo 'root:x:0:0:root:/:/bin/sh' >/etc/passwd
echo 'root:x:0:' >/etc/group
broker_up
LD_LIBRARY_PATH=/opt/bus/musl /opt/bus/musl/bus_probe listen $bus >/tmp/heard 2>/tmp/heard.err &
client=$!
until_so "the client is on the bus" has 1 '\[0623\]' /tmp/heard.err
sent=0 lost=0
while [ $lost -lt $RESTARTS ]; do
  broker_killed
  broker_up
  lost=$((lost + 1))
  until_so "the client is back" has $lost '\[0617\]' /tmp/heard.err
  send $EVENTS
done
row "broker killed $lost times" "$sent events, each once, in order"
send $BURST
row "a burst" "$BURST events, each once, in order"
kill "$client"

mkdir /tmp/hub
LD_LIBRARY_PATH=/opt/bus/musl /opt/bus/musl/hubd --dir /tmp/hub --socket /tmp/hubd.sock --bus $bus >/tmp/hubd.out 2>/tmp/hubd.err &
hubd=$!
until_so "hubd serves" serves
until_so "hubd is on the bus" has 1 '\[0623\]' "$log/hubd_0.log.txt"
try in_world glibc ubus -s $bus send mesh.status '{"node":"leaf-1","hops":2}' || die "no event was sent"
until_so "hubd has heard it" has 1 'event mesh.status node=leaf-1 hops=2' "$log/hubd_0.log.txt"
[ "$(ctl get mesh.last)" = "mesh.status node=leaf-1 hops=2" ] || die "hubd has kept $(ctl get mesh.last)"
row "hubd and ubus send" "the event is in its log and in its store"
hubd_stopped
