#!/bin/sh
# Installs the build into an empty prefix, moves the prefix, and builds and runs the examples and a C++ program
# against it: with pkg-config and with CMake. In the end hubd and hubctl talk to each other, hubd also as the
# init script starts it.
#
#   install_test.sh CMAKE SOURCE BUILD
set -eu
cmake=$1 source=$2 build=$3

command -v pkg-config >/dev/null || {
  echo "skipped: no pkg-config"
  exit 77
}
work=$(mktemp -d /tmp/quill-install.XXXXXX)
hubd_pid=
end() {
  [ -z "$hubd_pid" ] || kill -KILL "$hubd_pid" 2>/dev/null || true
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
[ "$(pkg-config --modversion quillcore)" = 1.0.0 ] || fail "the version in quillcore.pc"
mkdir "$work/pkg-config"
examples=$source/examples
cd "$examples"
# shellcheck disable=SC2046 # words are what pkg-config gives
cc -std=gnu11 -D_GNU_SOURCE $(pkg-config --cflags quillcore) -o "$work/pkg-config/hubd" hubd.c interfaces.c log_handler.c \
  request.c sampler.c store_handlers.c no_bus_handlers.c $(pkg-config --libs quillcore)
# shellcheck disable=SC2046
cc -std=gnu11 -D_GNU_SOURCE $(pkg-config --cflags quillcore) -o "$work/pkg-config/hubctl" bulk.c hub_client.c hubctl.c \
  inspect.c settings.c $(pkg-config --libs quillcore)
# shellcheck disable=SC2046
c++ -std=c++17 $(pkg-config --cflags quillcore) -o "$work/pkg-config/consumer" \
  "$source/tests/install/consumer.cc" $(pkg-config --libs quillcore)

if ! {
  "$cmake" -G Ninja -S "$source/tests/install" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DQUILL_EXAMPLES="$examples" && "$cmake" --build "$work/cmake"
} >"$work/cmake.log" 2>&1; then
  cat "$work/cmake.log"
  fail "the CMake project"
fi

# talk FOLDER COMMAND...: the hubd that the command starts, with its state in $state, serves the hubctl of the
# folder. The namespace keeps /tmp/quillnet apart.
talk() {
  hubctl=$1/hubctl
  shift
  private="unshare --mount"
  [ "$(id -u)" = 0 ] || private="unshare --mount --user --map-root-user"
  mkdir -p /tmp/quillnet "$state"
  # shellcheck disable=SC2086 # words
  $private sh -c 'mount -t tmpfs tmpfs /tmp/quillnet && exec "$@"' sh "$@" >"$state/out" 2>"$state/err" &
  hubd_pid=$!
  tries=0
  until grep -q serving "$state/out"; do
    tries=$((tries + 1))
    [ $tries -lt 300 ] || fail "$* did not come up: $(tail -n 3 "$state/err")"
    sleep 0.1
  done
  said=$("$hubctl" --socket "$state/hubd.sock" count 2>/dev/null) || fail "$hubctl: $said"
  [ "$said" = 1 ] || fail "$hubctl said: $said"
  grep -q '^Umask:[[:space:]]*0077$' "/proc/$hubd_pid/status" || fail "the umask of $*"
  kill -TERM "$hubd_pid"
  wait "$hubd_pid" || fail "$* ended with $?"
  hubd_pid=
}

for folder in "$work/pkg-config" "$work/cmake"; do
  "$folder/consumer" || fail "the consumer in $folder"
  state=$work/state-$(basename "$folder")
  talk "$folder" "$folder/hubd" --dir "$state"
done
"$work/cmake/consumer_static" || fail "the consumer with the static library"

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
talk "$prefix/bin" sh "$work/rc" "$source/packaging/openwrt/quillcore/files/hubd.init" "$prefix/bin/hubd" "$state"
echo "installed, moved, built and run: C and C++, pkg-config and CMake, by the init script"
