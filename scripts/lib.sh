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

# Packages for 32-bit ARM out of the archive that this machine takes its own from, with lists and a cache below a
# folder: no foreign architecture is added and no file of apt is touched.

# begin_armhf_apt FOLDER: the lists; packages will go to FOLDER/archives.
begin_armhf_apt() {
  local suite archive=''
  armhf=$1
  mkdir -p "$armhf/lists/partial" "$armhf/archives/partial"
  suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  archive=$(awk '/^URIs:/ { print $2; exit }' /etc/apt/sources.list.d/debian.sources 2>/dev/null) ||
    archive=$(awk '$1 == "deb" { for (i = 2; i <= NF; i++) if ($i ~ /:\/\//) { print $i; exit } }' /etc/apt/sources.list)
  [[ -n $archive ]] || die "no Debian archive in apt's sources"
  echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $archive $suite main" >"$armhf/armhf.list"
  armhf_apt apt-get update
}

# armhf_apt PROGRAM ARGUMENT...: a program of apt's, in the folder of archives.
armhf_apt() {
  local program=$1
  shift
  (cd "$armhf/archives" && "$program" -q \
    -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root \
    -o Dir::Etc::sourcelist="$armhf/armhf.list" -o Dir::Etc::sourceparts=/dev/null -o Dir::Etc::main=/dev/null \
    -o Dir::State::lists="$armhf/lists" -o Dir::State::status=/dev/null \
    -o Dir::Cache::archives="$armhf/archives" -o Dir::Cache::pkgcache='' -o Dir::Cache::srcpkgcache='' \
    -o Acquire::Languages=none "$@")
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

# What a script may want of the kernel: what that takes | how unshare is called | what must work there.
declare -rA ABILITIES=(
  [mounts]='a mount namespace with a tmpfs in it (CAP_SYS_ADMIN)|--mount|mount -t tmpfs tmpfs /tmp'
  [overlay]='an overlay on /etc (CAP_SYS_ADMIN, overlayfs)|--mount|mount -t tmpfs tmpfs /tmp
    mkdir /tmp/upper /tmp/work
    mount -t overlay -o lowerdir=/etc,upperdir=/tmp/upper,workdir=/tmp/work overlay /etc'
  [network]='a network namespace that /sys shows (CAP_SYS_ADMIN)|--mount --net|mount -t sysfs sysfs /sys'
  [links]='pairs of interfaces and bridges (CAP_SYS_ADMIN, CAP_NET_ADMIN, veth, bridge)|--net|
    ip link add name left0 type veth peer name right0
    ip link add name bridge0 type bridge'
  [processes]='a PID namespace (CAP_SYS_ADMIN)|--pid --fork|true'
)

# can ABILITY...: tries each, in namespaces that end with the attempt, and says what is missing. 0 if all work.
can() {
  local ability takes options commands said lacking=0 user=()
  ((EUID == 0)) || user=(--user --map-root-user)
  for ability; do
    IFS='|' read -r -d '' takes options commands <<<"${ABILITIES[$ability]}" || true
    # shellcheck disable=SC2086 # options are words
    said=$(unshare "${user[@]}" $options sh -ec "$commands" 2>&1) && continue
    lacking=1
    say "Missing here: $takes${user:+, in a user namespace since this is not root}: ${said##*$'\n'}"
  done
  return $lacking
}

can_run_suite() { can mounts overlay network links processes; }

# skip WHAT: says and counts what is left out, one thing or as many as a second argument says.
skipped=0
skip() {
  skipped=$((skipped + ${2-1}))
  say "  skipped: $1"
}

# run_suite FOLDER CTEST_OPTION...: runs the test suite of a build folder. Whatever the outcome, what was skipped
# is counted: cases by the programs' own lines, whole programs by those of ctest. The status is that of ctest.
run_suite() {
  local folder=$1 status=0 program cases
  shift
  ctest --test-dir "$folder" --no-tests=error --parallel "$(nproc)" --output-on-failure "$@" |
    tee "$folder/suite.txt" || status=$?
  while read -r program cases; do
    skip "$cases cases of $program" "$cases"
  done < <(awk '$2 == "Testing:" { program = $3 }
                /^\[  SKIPPED \] .* \([0-9]+ ms\)$/ { cases[program]++ }
                END { for (program in cases) print program, cases[program] }' \
    "$folder/Testing/Temporary/LastTest.log" | sort)
  while read -r program; do
    skip "$program"
  done < <(sed -nE 's/^.*: ([^ ]+) \.*\*\*\*Skipped.*/\1/p' "$folder/suite.txt")
  return $status
}

# finish TEXT: the last line of a script: what it did, and how much it left out, which is a failure where
# nothing may be, as CI=true in the environment says.
finish() {
  ((skipped == 0)) || [[ ${CI-} != true ]] || die "$skipped skipped, which CI=true does not allow"
  say "$1; $skipped skipped"
}
