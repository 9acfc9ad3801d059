# shellcheck shell=bash
# shellcheck disable=SC2154 # what scripts/demo sets
# The part of the demo that is about the machine: its interfaces, the child that samples their counters, a
# network namespace with a bridge, and hubd in the background.

# ask ARGUMENT...: what hubctl prints, for comparing.
ask() { "$BUILD/examples/hubctl" --socket "$socket" "$@" 2>>"$dir/hubctl.log"; }

# Each interface of this machine has its line, with the index and the address that the kernel's own files
# tell, and nothing else has one.
show_machine() {
  local folder name listed
  say "The interfaces of this machine"
  listed=$(ask interfaces)
  for folder in /sys/class/net/*/; do
    name=$(basename "$folder")
    grep -qE "^$name +$(cat "$folder/ifindex") .* $(cat "$folder/address") " <<<"$listed" ||
      die "$name is not listed as the kernel tells it:"$'\n'"$listed"
    interfaces=$((interfaces + 1))
  done
  [[ $(wc -l <<<"$listed") == $((interfaces + 1)) ]] || die "interfaces that are not there:"$'\n'"$listed"
  sed 's/^/      /; s/ *$//' <<<"$listed"
  held "all of them, and no other" "$interfaces interfaces, index and address as in sysfs"
}

beats() { ask child status | sed -nE 's/.* ([0-9]+) beats.*/\1/p'; }

child_pid() { ask child status | sed -n 's/.*running, pid \([0-9]*\),.*/\1/p'; }

# wait_for_child PATTERN: until hubctl says so of the child.
wait_for_child() {
  local deadline=$((SECONDS + 20))
  # shellcheck disable=SC2053 # the right-hand side is a pattern
  until [[ $(ask child status) == $1 ]]; do
    ((SECONDS < deadline)) || die "the child: $(ask child status)"
    read -r -t 0.1 <> <(:) || true
  done
}

show_child() {
  local pid
  say "The child that samples the counters"
  wait_for_child "running, pid *, start 1, [1-9]* beats"
  check "its heart beats" 0 "running, pid *" child status
  # The second sample is the first that can tell what went through.
  local deadline=$((SECONDS + 20))
  until (($(beats) >= 2)); do
    ((SECONDS < deadline)) || die "the child: $(ask child status)"
    read -r -t 0.1 <> <(:) || true
  done
  ask interfaces | grep -qE '^lo .* [0-9]+ +[0-9]+ *$' || die "no sample of lo"
  check "stopped by its word" 0 "stopped by its word, exit status 0; not running, *" child stop
  check "without it no rate is told" 0 "*lo * -          -*" interfaces
  check "started again" 0 "*; running, pid *, start 2, *" child start
  pid=$(child_pid)
  kill -STOP "$pid"
  check "frozen, and stopped by force" 0 "stopped by force, signal 9; not running, *" child stop
  check "started again" 0 "*; running, pid *, start 3, *" child start
  kill -KILL "$(child_pid)"
  wait_for_child "stopped by itself, signal 9; running, pid *, start 4, *"
  check "killed, and started again by hubd" 0 "stopped by itself, signal 9; running, *" child status
}

# A hubd in a network namespace of its own, with its own view of /sys. Its socket is a file like any other,
# so hubctl stays outside.
show_network() {
  local pid line='' inside
  if ! unshare --net --mount mount -t sysfs sysfs /sys 2>/dev/null; then
    network="no network namespace may be made here"
    say "  --  a bridge and two pairs: $network"
    return
  fi
  say "A bridge with two pairs, in a network namespace"
  mkdir "$dir/inside"
  mkfifo "$dir/inside.out"
  # shellcheck disable=SC2016 # the inner shell's
  unshare --net --mount sh -c 'mount -t sysfs sysfs /sys && exec "$@"' sh \
    "$BUILD/examples/hubd" --dir "$dir/inside" --pid-file inside.pid \
    >"$dir/inside.out" 2>>"$dir/hubd.log" 3<&- &
  pid=$!
  daemon_pid=$pid
  exec 6<"$dir/inside.out"
  read -r -t 30 -u 6 line || die "the hubd in the namespace did not come up"
  inside=(nsenter "--net=/proc/$pid/ns/net" ip)
  "${inside[@]}" link add name mesh0 type bridge
  "${inside[@]}" link set mesh0 up

  local socket=$dir/inside/hubd.sock
  check "a pair without a bridge" 1 "refused, msg_err=3, code 12: mesh1 is no bridge" pair leaf0 peer0 mesh1
  check "a pair on the bridge" 0 "done, *" pair leaf0 peer0 mesh0
  check "a second one, with the longest name" 0 "done, *" pair leaf-port-00001 peer1 mesh0
  check "a name that is taken" 1 "refused, msg_err=3, code 12: leaf0 and peer2 could not be made" \
    pair leaf0 peer2 mesh0
  check "the bridge is up" 0 "*mesh0 *bridge up *" interfaces
  check "the first is port 1" 0 "*leaf0 *veth   up    up         on *mesh0 *1 *" interfaces
  check "the second is port 2" 0 "*leaf-port-00001 *veth   up    up         on *mesh0 *2 *" interfaces
  sed 's/^/      /; s/ *$//' <<<"$answer"
  "${inside[@]}" link del leaf0
  check "what is gone is not listed" 0 "*mesh0*" interfaces
  [[ $answer != *leaf0* && $answer != *peer0* ]] || die "leaf0 is gone and still listed"
  kill -TERM "$pid"
  wait "$pid" || die "the hubd in the namespace ended with status $?"
  daemon_pid=''
  exec 6<&-
  network="a bridge with two pairs in a namespace"
}

daemon_pid_of_file() { od -An -t d4 "$PID_FILE" | tr -d ' '; }

# is_our_daemon PID: a hubd of this build that works in this demo's folder.
is_our_daemon() {
  [[ $1 =~ ^[1-9][0-9]+$ && /proc/$1/exe -ef $BUILD/examples/hubd ]] &&
    tr '\0' '\n' <"/proc/$1/cmdline" 2>/dev/null | grep -qxF "$dir/state"
}

# Those whose number is not known: what went to the background is no child of ours.
end_our_daemons() {
  local folder
  for folder in /proc/[0-9]*; do
    ! is_our_daemon "${folder#/proc/}" || kill -KILL "${folder#/proc/}" 2>/dev/null || true
  done
}

# start_daemon: hubd goes to the background. What we start ends at once with status 0; hubd is another
# process, which holds standard output open until it has ended.
start_daemon() {
  local line=''
  "$BUILD/examples/hubd" --dir "$dir/state" --daemon >"$dir/hubd.out" 2>>"$dir/hubd.log" 3<&- &
  local launcher=$!
  exec 3<"$dir/hubd.out"
  wait "$launcher" || die "the process that went to the background left status $?"
  read -r -t 30 -u 3 line || die "hubd did not come up in the background"
  [[ $line == "hubd: serving on $socket" ]] || die "hubd said: $line"
  local told
  told=$(daemon_pid_of_file)
  [[ $(stat -c %s "$PID_FILE") == 4 && $told != "$launcher" ]] || die "not in the pid file: $told"
  is_our_daemon "$told" || die "the pid file names another process: $told"
  daemon_pid=$told
  starts=$((starts + 1))
}

# A process that has ended keeps its pid, and with it the pid file, until init has collected its status.
end_daemon() {
  local deadline=$((SECONDS + 20))
  kill "-$1" "$daemon_pid"
  wait_until_gone
  while kill -0 "$daemon_pid" 2>/dev/null; do
    ((SECONDS < deadline)) || die "nobody collects the status of processes without a parent here"
    read -r -t 0.02 <> <(:) || true
  done
  daemon_pid=''
}

# refused WHAT STATUS TEXT ARGUMENT...: another hubd that must not come up.
refused() {
  local what=$1 want_status=$2 want=$3 status=0 said
  shift 3
  said=$("$BUILD/examples/hubd" --dir "$dir/state" "$@" 2>&1) || status=$?
  [[ $status == "$want_status" && $said == *"$want" ]] || die "$what: status $status, $said"
  held "$what" "$want"
}

show_daemon() {
  local before session
  say "In the background, and only once"
  start_daemon
  [[ $(readlink "/proc/$daemon_pid/cwd") == / ]] || die "hubd does not work in /"
  session=$(cut -d ' ' -f 6 "/proc/$daemon_pid/stat")
  [[ $session != "$daemon_pid" && $session != "$(cut -d ' ' -f 6 /proc/$$/stat)" ]] ||
    die "hubd leads its session, or shares ours"
  held "hubd is a daemon" "pid $daemon_pid, works in /, leads no session"
  before=$(cksum <"$PID_FILE")
  refused "a second one with this pid file" 1 "hubd: another hubd runs" --store "$dir/other.kvs" \
    --socket "$dir/other.sock"
  [[ $(cksum <"$PID_FILE") == "$before" ]] || die "the pid file was changed"
  refused "one with another pid file" 1 "hubd: the store is in use by another hubd" --pid-file other.pid
  refused "one with another store" 1 "hubd: the socket is in use by another hubd" --pid-file other.pid \
    --store "$dir/other.kvs"
  [[ ! -e /tmp/quillnet/other.pid ]] || die "they left a pid file behind"
  check_count
  end_daemon KILL
  [[ -s $PID_FILE ]] || die "the pid file went with SIGKILL"
  local stale
  stale=$(daemon_pid_of_file)
  start_daemon
  [[ $daemon_pid != "$stale" ]] || die "the pid file still names the dead one"
  held "after SIGKILL the pid file is taken over" "now pid $daemon_pid; no child was left behind"
  check "everything is there after it" 0 "$full values the same, $empty empty, 0 different, *" \
    verify "$SETTINGS"
  check_count
  end_daemon TERM
  [[ ! -e $PID_FILE && ! -e $socket ]] || die "hubd left its pid file or its socket behind"
  held "hubd ended by itself on SIGTERM" "pid file and socket removed"
}
