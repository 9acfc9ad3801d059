#!/bin/sh
# Installs the build into an empty prefix, moves the prefix, and builds and runs against it: with pkg-config the
# first daemon, which the README shows, with CMake hubd and hubctl, with both a C++ program. hubd also as the init
# script starts it.
#
#   install_test.sh CMAKE SOURCE BUILD
set -eu
cmake=$1 source=$2 build=$3

command -v pkg-config >/dev/null || {
  echo "skipped: no pkg-config"
  exit 77
}
# /tmp/quillnet is private, in a namespace.
if [ $# = 3 ]; then
  mkdir -p /tmp/quillnet
  map=--map-root-user
  [ "$(id -u)" != 0 ] || map=
  unshare --mount $map true || {
    echo "skipped: no mount namespace"
    exit 77
  }
  exec unshare --mount $map "$0" "$@" private
fi
mount -t tmpfs tmpfs /tmp/quillnet
work=$(mktemp -d /tmp/quill-install.XXXXXX)
daemon_pid=
end() {
  [ -z "$daemon_pid" ] || kill -KILL "$daemon_pid" 2>/dev/null || true
  rm -rf -- "$work"
}
trap end EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/moved"
prefix=$work/moved
for file in include/quillcore/quillcore.h lib/libquillcore.so.1 lib/libquillcore.a bin/hubd \
  lib/pkgconfig/quillcore.pc lib/cmake/quillcore/quillcoreConfig.cmake; do
  [ -e "$prefix/$file" ] || fail "$file was not installed"
done
# What callers read names no folder of the machine that built it.
if grep -rlF -e "$source" -e "$build" -e "$work" "$prefix/include" "$prefix/lib/pkgconfig" "$prefix/lib/cmake"; then
  fail "these files name a folder of the build"
fi

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig" LD_LIBRARY_PATH="$prefix/lib"
version=$(pkg-config --modversion quillcore)
for program in hubd hubctl; do
  [ "$("$prefix/bin/$program" --version)" = "$program $version" ] || fail "$program and quillcore.pc differ in version"
done
grep -qx "PKG_VERSION:=$version" "$source/packaging/openwrt/quillcore/Makefile" || fail "the version of the feed"
mkdir "$work/pkg-config"
examples=$source/examples
cd "$examples"
# shellcheck disable=SC2046 # words are what pkg-config gives
cc -std=gnu11 -Wall -Wextra -Werror $(pkg-config --cflags quillcore) -o "$work/pkg-config/first_daemon" \
  first_daemon.c $(pkg-config --libs quillcore)
# shellcheck disable=SC2046
c++ -std=c++17 $(pkg-config --cflags quillcore) -o "$work/pkg-config/consumer" \
  "$source/tests/install/consumer.cc" $(pkg-config --libs quillcore)
sed '1,/^<!-- examples\/first_daemon.c/d; /^<!-- end/,$d' "$source/README.md" | sed '1d; $d' |
  diff first_daemon.c - || fail "the README shows another first daemon"

if ! {
  "$cmake" -G Ninja -S "$source/tests/install" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DQUILL_EXAMPLES="$examples" && "$cmake" --build "$work/cmake"
} >"$work/cmake.log" 2>&1; then
  cat "$work/cmake.log"
  fail "the CMake project"
fi

# serve COMMAND...: starts a daemon, with standard input closed and a pid file for hubd that names it already, as in
# a container that counts its pids from 1. Returns when it has done what `$ask` asks of it.
serve() {
  mkdir -p "$state"
  # shellcheck disable=SC2016 # the inner shell's
  sh -c 'for bits in 0 8 16 24; do printf "\\$(printf %o $(($$ >> bits & 255)))"; done >/tmp/quillnet/hubd.pid
    exec "$@"' sh "$@" >"$state/out" 2>"$state/err" <&- &
  daemon_pid=$!
  tries=0
  until $ask >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ $tries -lt 300 ] || fail "$* did not come up: $(tail -n 3 "$state/err")"
    sleep 0.1
  done
  [ "$(readlink "/proc/$daemon_pid/fd/0")" = /dev/null ] || fail "$* has no standard input"
  grep -q '^Umask:[[:space:]]*0077$' "/proc/$daemon_pid/status" || fail "the umask of $*"
}

# end_after WHAT COMMAND...: the command must say what; then the daemon must end by SIGTERM.
end_after() {
  want=$1
  shift
  said=$("$@" 2>/dev/null) || true
  [ "$said" = "$want" ] || fail "$* said: $said"
  kill -TERM "$daemon_pid"
  wait "$daemon_pid" || fail "the daemon ended with $?"
  daemon_pid=
}

# talk HUBCTL COMMAND...: the hubd that the command starts serves hubctl.
talk() {
  hubctl="$1 --socket $state/hubd.sock"
  shift
  ask="$hubctl put key value"
  serve "$@"
  # shellcheck disable=SC2086 # words
  end_after value $hubctl get key
}

for folder in "$work/pkg-config" "$work/cmake"; do
  "$folder/consumer" || fail "the consumer in $folder"
done
"$work/cmake/consumer_static" || fail "the consumer with the static library"

state=$work/first first=$work/pkg-config/first_daemon
ask="$first set hello"
serve "$first"
end_after hello "$first" get
ask="$first get"
serve "$first"
end_after hello "$first" get
grep -q '\[9101\] \[I\] \[first\] \[set\] a text of 5 bytes' /tmp/quillnet/log/leafd_0.log.txt || fail "no record"

state=$work/state
talk "$work/cmake/hubctl" "$work/cmake/hubd" --dir "$state"

# The init script, with functions in procd's place that run the command in the foreground.
cat >"$work/rc" <<'END'
procd_open_instance() { :; }
procd_close_instance() { :; }
procd_set_param() {
  [ "$1" = command ] || return 0
  shift
  exec "$@"
}
. "$1"
PROGRAM=$2 STATE=$3 SOCKET=$3/hubd.sock BUS=$3/no-bus
start_service
END
state=$work/state-init
talk "$prefix/bin/hubctl" sh "$work/rc" "$source/packaging/openwrt/quillcore/files/hubd.init" "$prefix/bin/hubd" "$state"
echo "installed, moved, built and run: C and C++, pkg-config and CMake, by the init script"
