# shellcheck shell=bash
# What the scripts of this folder share. A script sources it first; from then on it stands in the root of
# the repository, whatever directory it was called from.

ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
cd -- "$ROOT" || exit

say() { printf '%s\n' "$*"; }

die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

is_installed() {
  # shellcheck disable=SC2016 # the braces are dpkg-query's
  dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# need PACKAGE...: installs those of the Debian packages that are missing.
need() {
  local missing=() as_root=() package
  if ! command -v dpkg-query >/dev/null; then
    say "This is no Debian; taking it that what these packages hold is there: $*"
    return
  fi
  for package; do
    is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]} > 0)) || return 0

  say "Installing ${missing[*]}"
  if ((EUID != 0)); then
    command -v sudo >/dev/null || die "installing ${missing[*]} takes root or sudo"
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -q
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# quietly LOG COMMAND...: shows what a command said only if it failed.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    die "failed: $*"
  }
}

# configure_target TARGET FOLDER OPTION...: a build as it ships; scripts/musl-root has made MUSL_ROOT.
configure_target() {
  local target=$1 folder=$2
  shift 2
  [[ $ROOT != *[[:space:]]* ]] || die "compilers and emulators are given this folder by name: it may hold no blank"
  [[ $target == x64-glibc ]] || set -- "-DCMAKE_TOOLCHAIN_FILE=$ROOT/cmake/toolchains/$target.cmake" "$@"
  [[ $target != *musl ]] || set -- "-DMUSL_ROOT=$MUSL_ROOT" "$@"
  quietly "$folder.configure.log" cmake -G Ninja -S "$ROOT" -B "$folder" -DCMAKE_BUILD_TYPE=MinSizeRel "$@"
}

# The libraries that a program or library asks for, by name.
needed_of() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort | paste -sd ' '; }
