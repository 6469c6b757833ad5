#!/bin/sh
# Runs every libFuzzer target built in DIR for SECONDS each, JOBS at a time:
#
#   sh fuzz/run-all.sh DIR [SECONDS] [JOBS]
#
# A target starts from its seed corpus fuzz/corpus/<name>/, which stays as it is: what the
# run finds goes to DIR/corpus/<name>/, inputs that fail to DIR/artifacts/. Exits non-zero
# when any target reports a finding (crash, sanitizer report, leak, time-out, out of memory)
# or does not run.
set -u
dir=$(cd "${1:?usage: run-all.sh DIR [SECONDS] [JOBS]}" && pwd)  # absolute: a target may chdir
seconds=${2:-60}
jobs=${3:-2}
seeds=$(cd "$(dirname "$0")" && pwd)/corpus

export CSP_DEBUG_QUIET=1   # the library's debug output would drown the fuzzer's own lines
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"

mkdir -p "$dir/logs" "$dir/artifacts"
targets=$(cd "$dir" && ls *_fuzz 2>/dev/null)
if [ -z "$targets" ]; then
  echo "run-all.sh: no *_fuzz programs in $dir" >&2
  exit 1
fi

run_one() {
  name=${1%_fuzz}
  mkdir -p "$dir/corpus/$name"
  start=$(date +%s)
  "$dir/$1" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$dir/artifacts/$name-" "$dir/corpus/$name" "$seeds/$name" \
    >"$dir/logs/$name.log" 2>&1
  rc=$?
  echo "$rc $(( $(date +%s) - start ))" >"$dir/logs/$name.rc"
}

# Batches of JOBS targets side by side.
set -- $targets
while [ $# -gt 0 ]; do
  n=0
  while [ $# -gt 0 ] && [ $n -lt "$jobs" ]; do
    run_one "$1" &
    shift
    n=$((n + 1))
  done
  wait
done

failed=0
for t in $targets; do
  name=${t%_fuzz}
  read -r rc took <"$dir/logs/$name.rc"
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/logs/$name.log")
  if [ "$rc" = 0 ]; then
    echo "fuzz $name: ok, ${runs:-?} runs in ${took}s"
  else
    echo "fuzz $name: FAILED (exit $rc after ${took}s); log $dir/logs/$name.log:"
    grep -v '^#[0-9]' "$dir/logs/$name.log" | tail -n 60
    failed=1
  fi
done
exit $failed
