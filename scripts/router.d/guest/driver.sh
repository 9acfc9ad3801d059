#!/bin/sh
# The C driver, on a router's own kernel.
# shellcheck source-path=SCRIPTDIR source=common.sh
. /common.sh

modprobe -a bridge veth dummy || die "no modules of the network"
try abi_test >/tmp/driver
status=$?
counts="$(grep -c '^ok ' /tmp/driver) held, $(grep -c '^skip ' /tmp/driver) skipped"
grep -v '^ok ' /tmp/driver
[ "$status $(grep -c '^skip ' /tmp/driver)" = "0 0" ] || die "$counts, status $status"
row "C driver" "$counts"
