#!/bin/sh
#===- armhf-run.sh - run an armhf program under qemu-arm -===#
#
# The emulator of cmake/armhf-toolchain.cmake: CTest and test discovery start every ARM program
# through this script.
#
# Usage: armhf-run.sh QEMU SYSROOT PROGRAM [ARGS...]
#
# qemu-arm alone cannot follow a program that executes itself again: the kernel refuses the ARM
# binary (ENOEXEC). GoogleTest's "threadsafe" death tests do exactly that with argv[0]. So the
# program is started with argv[0] set (qemu-arm -0) to a small host script beside it,
# PROGRAM.qemu, which starts PROGRAM under qemu-arm the same way; a re-executed child thus runs
# emulated too.
set -eu

[ $# -ge 3 ] || { echo "usage: $0 QEMU SYSROOT PROGRAM [ARGS...]" >&2; exit 2; }
qemu=$1
sysroot=$2
program=$(realpath "$3")
shift 3

shim="$program.qemu"
body=$(printf '#!/bin/sh\nexec "%s" -L "%s" -0 "$0" "%s" "$@"\n' "$qemu" "$sysroot" "$program")
if [ ! -x "$shim" ] || [ "$(cat "$shim")" != "$body" ]; then
  # Parallel test processes may write it at once: write aside, then rename.
  tmp="$shim.$$"
  printf '%s\n' "$body" > "$tmp"
  chmod +x "$tmp"
  mv -f "$tmp" "$shim"
fi

exec "$qemu" -L "$sysroot" -0 "$shim" "$program" "$@"
