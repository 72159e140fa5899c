#!/usr/bin/env bash
# Times a whole profiler run of a Release build on a generated trace of about
# five million reads (24 intervals of 210,000 reads on 4 devices), and shows
# how the time splits between reading the trace (line reading and parsing,
# in the aggregation pass and in every replay) and the replays.
#
#   bench/profile_trace.sh                 # build-release/, trace in a temp dir
#   BUILD_DIR=/tmp/rel TRACE_DIR=/tmp/t bench/profile_trace.sh
#
# The trace (about 90 MB) is generated once into TRACE_DIR and reused; it is
# never written into the source tree.  The split needs perf; without it only
# the wall time and peak memory are shown.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-release}
trace=${TRACE_DIR:-${TMPDIR:-/tmp}/zriostat-bench-trace}

# Frame pointers keep perf's call chains whole in our own code.
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRIOSTAT_TESTS=OFF \
  -DCMAKE_CXX_FLAGS=-fno-omit-frame-pointer >/dev/null
ninja -C "$build" zriostatd >/dev/null

if [[ ! -s "$trace/out" ]]; then
  echo "generating the trace into $trace (takes a while)"
  python3 "$root/tools/gen_trace.py" --preset bench "$trace"
fi
echo "trace: $(grep -vc '^0 0 0 0$' "$trace/out") reads, $(grep -c '^0 0 0 0$' "$trace/out") separators, $(du -h "$trace/out" | cut -f1)"

run=("$build/zriostatd" -p -i "$trace" -s 0.1 -d 5)
/usr/bin/time -v "${run[@]}" >"$trace/report" 2>"$trace/time"
grep -E "Elapsed \(wall clock\)|User time|System time|Maximum resident" "$trace/time" | sed 's/^\s*//'
grep -E "^(Cache Size|Read Hit\(%\))" "$trace/report"

if command -v perf >/dev/null; then
  # DWARF unwinding follows the calls through the C library's scanf.
  perf record -q -F 499 --call-graph dwarf,16384 -o "$trace/perf.data" "${run[@]}" >/dev/null 2>&1
  echo "share of samples (inclusive):"
  perf report -i "$trace/perf.data" --children --sort symbol -g none --stdio 2>/dev/null |
    awk '$1 ~ /%$/ && $4 ~ /^(vol_process_trace_input|vol_apply_lru|vol_trace_read_line|vol_stathash_find)$/ {
           printf "  %-26s %s\n", $4, $1 }'
  echo "  (vol_trace_read_line: line reading and parsing, all passes;"
  echo "   vol_process_trace_input: the aggregation pass; vol_apply_lru: all replays)"
fi
