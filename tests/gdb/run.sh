#!/bin/sh
# run.sh GDB TARGET LIBDIR WORKDIR: gdb in batch mode on the target program, which stops in
# lt_gdb_checkpoint(). check.py runs the extension there on the live process, writes a core
# file with gcore, and runs again on the core file in a second gdb. Then probes.py or
# probes.gdb, if there is one, gets a gdb of its own on a fresh run of the target. gdb loads
# the extension by itself, from the copy beside the library in LIBDIR: its name is checked too.
# Exit status 77 (skipped) when there is no gdb, or gdb cannot run a program here.
set -u
gdb=$1 target=$2 libdir=$3 work=$4
here=$(cd "$(dirname "$0")" && pwd)
if [ -z "$gdb" ] || ! command -v "$gdb" >/dev/null 2>&1; then
  echo "skipped: no gdb (Debian package gdb)"
  exit 77
fi
if ! "$gdb" -batch -nx -ex run --args /bin/true 2>&1 | grep -q "exited normally"; then
  echo "skipped: gdb cannot run a program here (is ptrace forbidden?)"
  exit 77
fi
core=$work/gdb_target.core
rm -f "$core"
run_gdb() {
  "$gdb" -batch -nx -iex "add-auto-load-safe-path $libdir" -iex "set debuginfod enabled off" \
    -iex "set pagination off" "$@"
}

LT_GDB_CORE=$core run_gdb -x "$here/check.py" --args "$target" || exit 1
[ -s "$core" ] || { echo "FAIL: no core file written"; exit 1; }
LT_GDB_CORE=$core run_gdb -x "$here/check.py" "$target" "$core" || exit 1
rm -f "$core"
for probes in "$here/probes.py" "$here/probes.gdb"; do
  if [ -f "$probes" ]; then
    run_gdb -x "$probes" --args "$target" || exit 1
  fi
done
echo "PASS"
