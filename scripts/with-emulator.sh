#!/bin/bash
# with-emulator.sh ARCHITECTURE SYSROOT COMMAND...: runs a command in whose processes the programs of another
# architecture start as any other does, with the libraries of the sysroot. To be started in a user and a mount namespace
# of its own: what this registers and mounts is nobody else's.
set -euo pipefail
# shellcheck source=scripts/say.sh
. "${0%/*}/say.sh"

readonly registry=/proc/sys/fs/binfmt_misc

case $1 in
  # The head of a 64-bit little-endian program for this machine, with any of the systems that it may name.
  aarch64)
    head='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
    mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    ;;
  *) die "there is no emulator for $1 here" ;;
esac
emulator=$(command -v "qemu-$1") || die "qemu-$1 is missing; install the package qemu-user"

mount -t binfmt_misc none "$registry" || die "the kernel takes no emulators in a namespace; Linux 6.7 and later do"
# "F" opens the emulator now: its path need not lead to it where a program starts.
printf ':qemu-%s:M:0:%s:%s:%s:F' "$1" "$head" "$mask" "$emulator" >"$registry/register"
# Beside the machine's own: a program that is started without an environment finds them as well.
mount -t overlay none -o "lowerdir=/usr/lib:$2/usr/lib" /usr/lib
shift 2
exec "$@"
