#!/usr/bin/env bash
# Times whole profiler runs of a Release build on generated traces, the
# program's own (one reading pass, replays of the compact form in parallel)
# against the streaming replay that reads the trace file once per replay, and
# times the phases of the fast path apart.
#
#   bench/profile_trace.sh                  # both presets, build-release/
#   PRESETS=heavy bench/profile_trace.sh    # one of them
#   BUILD_DIR=/tmp/rel TRACE_DIR=/tmp/t bench/profile_trace.sh
#
# Presets (tools/gen_trace.py): bench, about five million reads on 4 devices
# in 24 intervals; heavy, the same volume with hot sets large enough that
# the search runs seven replays and the optimal cache is about 197,000
# regions.  Each trace (about 90 MB) is generated once into
# TRACE_DIR/<preset> and reused; it is never written into the source tree.
#
# Printed per preset, from one run each: wall time and peak memory of the
# fast and of the streaming whole run and their ratio (the two reports are
# compared byte for byte), then the reading pass alone (in parts, one per
# processor, and in one part) and the replay throughput in region accesses
# per second per thread, on one thread and on two at once.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-release}
traces=${TRACE_DIR:-${TMPDIR:-/tmp}/zriostat-bench-trace}
presets=${PRESETS:-bench heavy}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRIOSTAT_TESTS=OFF \
  -DZRIOSTAT_BENCH=ON >/dev/null
ninja -C "$build" zriostatd profile_phases >/dev/null

# "<seconds> <peak KB>" of one run; its standard output goes to $2.
timed() {
  local out=$1
  shift
  /usr/bin/time -f "%e %M" -o "$out.time" "$@" >"$out" 2>/dev/null
  cat "$out.time"
}

for preset in $presets; do
  trace=$traces/$preset
  if [[ ! -s "$trace/out" ]]; then
    echo "generating the $preset trace into $trace (takes a while)"
    python3 "$root/tools/gen_trace.py" --preset "$preset" "$trace"
  fi
  echo "== $preset: $(grep -vc '^0 0 0 0$' "$trace/out") reads, $(du -h "$trace/out" | cut -f1)"
  options=(-p -i "$trace" -s 0.1 -d 5)
  read -r fast_s fast_kb < <(timed "$trace/report.fast" "$build/zriostatd" "${options[@]}")
  read -r lit_s lit_kb < <(timed "$trace/report.literal" "$build/bench/profile_phases" literal "${options[@]}")
  if cmp -s "$trace/report.fast" "$trace/report.literal"; then same="identical"; else same="DIFFERENT"; fi
  printf 'whole run, fast     : %7.2f s  %7d KB peak\n' "$fast_s" "$fast_kb"
  printf 'whole run, streaming: %7.2f s  %7d KB peak\n' "$lit_s" "$lit_kb"
  echo "ratio               : $(awk -v a="$lit_s" -v b="$fast_s" 'BEGIN { printf "%.1f", a / b }')x faster, reports $same"
  grep -E "^(Cache Size|Read Hit\(%\))" "$trace/report.fast" | sed 's/^/  /'
  echo "phases, one replay at a time (the reading pass in parts, one per processor):"
  "$build/bench/profile_phases" phases "$trace" 1 | sed 's/^/  /'
  echo "the reading pass in one part:"
  ZRIOSTAT_REPLAY_THREADS=1 "$build/bench/profile_phases" phases "$trace" 0 | grep '^parse' | sed 's/^/  /'
  echo "replays two at a time:"
  "$build/bench/profile_phases" phases "$trace" 2 | grep '^replay' | sed 's/^/  /'
done
