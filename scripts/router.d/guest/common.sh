# shellcheck shell=sh
# What the steps share. Each prints its results as "ROW what | seen" and ends at the first that does not hold.

say() { echo "$*"; }

die() {
  say "FAILED $*"
  tail -n 3 /tmp/err 2>/dev/null
  exit 1
}

row() { say "ROW $1 | $2"; }

# try COMMAND...: its standard error goes to /tmp/err.
try() { "$@" 2>/tmp/err; }

# until_so WHAT COMMAND...: asks again and again for a minute.
until_so() {
  what=$1
  tries=0
  shift
  until "$@"; do
    tries=$((tries + 1))
    [ $tries -lt 600 ] || die "waited in vain: $what"
    usleep 100000
  done
}

# --- /mnt, on one of several file systems. flash_up KIND fresh|kept: `fresh` makes it anew. ---

ubifs_up() { # on the first flash; an empty volume is formatted by its first mount
  modprobe ubifs || die "no ubifs"
  until_so "the flash is there" test -e /dev/mtd0
  [ "$1" = kept ] || try ubiformat -y -q /dev/mtd0 || die ubiformat
  try ubiattach -p /dev/mtd0 >/dev/null || die ubiattach
  [ "$1" = kept ] || try ubimkvol /dev/ubi0 -N data -m >/dev/null || die ubimkvol
}

flash_up() {
  case $1 in
    nand) # 32 MiB with pages of 2 KiB in the memory of the machine: gone with it
      modprobe nandsim parts=256 first_id_byte=0x20 second_id_byte=0xa1 third_id_byte=0x00 fourth_id_byte=0x15 ||
        die "no nandsim"
      ubifs_up "$2"
      device=ubi0:data type=ubifs
      ;;
    ubifs)
      modprobe -a spi-aspeed-smc spi-nor || die "no serial flash"
      ubifs_up "$2"
      device=ubi0:data type=ubifs
      ;;
    jffs2)
      modprobe -a spi-aspeed-smc spi-nor mtdblock jffs2 || die "no jffs2"
      until_so "the flash is there" test -e /dev/mtdblock0
      [ "$2" = kept ] || try flash_erase -q -j /dev/mtd0 0 0 || die flash_erase
      device=/dev/mtdblock0 type=jffs2
      ;;
    ext4 | f2fs) # of these the host has made f2fs
      modprobe -a virtio_pci virtio_blk "$1" || die "no $1"
      until_so "the disk is there" test -e /dev/vda
      [ "$2" = kept ] || [ "$1" != ext4 ] || try mke2fs -q -t ext4 /dev/vda || die mke2fs
      device=/dev/vda type=$1
      ;;
    *) die "no such flash: $1" ;;
  esac
  mount_flash
}

mount_flash() { try mount -t "$type" "$device" /mnt || die "mount $type"; }

free_on_flash() { df -k /mnt | awk 'NR > 1 { print $4 }'; }

# --- hubd, with its store on /mnt; its log is in tmpfs. ---

# shellcheck disable=SC2034 # for the steps
log=/tmp/quillnet/log
hubd='' # its pid

ctl() { hubctl --socket /tmp/hubd.sock "$@" 2>/tmp/err; }

serves() {
  kill -0 "$hubd" 2>/dev/null || die "hubd did not come up: $(cat /tmp/hubd.err)"
  grep -q serving /tmp/hubd.out
}

hubd_up() {
  : >/tmp/hubd.out
  # What shields a step from the kernel's search for memory does not shield hubd.
  # shellcheck disable=SC2016 # the inner shell's
  sh -c 'echo 0 >/proc/self/oom_score_adj && exec "$@"' sh \
    hubd --dir /mnt --socket /tmp/hubd.sock >/tmp/hubd.out 2>/tmp/hubd.err &
  hubd=$!
  until_so "hubd serves" serves
}

hubd_killed() {
  kill -KILL "$hubd"
  wait "$hubd"
}

hubd_stopped() {
  kill -TERM "$hubd"
  wait "$hubd" || die "hubd ended with status $?"
}

# verified WHAT FILE: every setting of the file is what hubd has.
verified() {
  ctl verify "$2" >/tmp/verified || die "$1: $(tail -n 1 /tmp/verified)"
  row "$1" "$(tail -n 1 /tmp/verified)"
}

# --- what the kernel tells ---

available() { awk '$1 == "MemAvailable:" { print $2 }' /proc/meminfo; }
of_process() { awk -v want="$2:" '$1 == want { print $2 }' "/proc/$1/status"; }
complaints() { dmesg | grep -iE 'ubifs error|ubi error|corrupt|i/o error' | grep -v 'corrupted PEBs: 0'; }
