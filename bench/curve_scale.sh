#!/usr/bin/env bash
# Times whole hit-ratio curves of a Release build on a large generated trace:
# one profiler run (zriostatd -p), the exact curve and the curve sampled at
# 1 % of the regions, each with its wall time, CPU time and peak memory, and
# the ratios the curve is held to (exact curve against the profiler run;
# sampled against exact, in time and in memory).
#
#   bench/curve_scale.sh                    # 50 million reads, 24 intervals
#   READS_MILLIONS=10 bench/curve_scale.sh  # a smaller trace
#   COPIES=20 bench/curve_scale.sh          # then also the trace 20 times over,
#                                           # sampled only (exact would need
#                                           # about 14 GB for a billion reads)
#   BUILD_DIR=/tmp/rel TRACE_DIR=/tmp/t RATE=0.001 bench/curve_scale.sh
#
# The curves cover the profiler's searched sizes and POINTS (default 35)
# more spread evenly: 40 sizes in all on the 50-million-read trace.
#
# The trace (tools/gen_trace.py, heavy preset: four devices, hot sets that
# drift, scans and random reads) is generated once into
# TRACE_DIR/heavy-<N>m and reused: 50 million reads take about 4 minutes and
# 900 MB.  The repeated trace is that one's intervals COPIES times in a row,
# 17 GB for 20 copies; it is made by concatenation and removed afterwards
# unless KEEP=1.  Neither is ever written into the source tree.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-release}
traces=${TRACE_DIR:-${TMPDIR:-/tmp}/zriostat-bench-trace}
millions=${READS_MILLIONS:-50}
rate=${RATE:-0.01}
copies=${COPIES:-0}
points=${POINTS:-35}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRIOSTAT_TESTS=OFF >/dev/null
ninja -C "$build" zriostatd zrcurve >/dev/null

trace=$traces/heavy-${millions}m
if [[ ! -s "$trace/out" ]]; then
  echo "generating $millions million reads into $trace (takes a while)"
  python3 "$root/tools/gen_trace.py" --preset heavy --intervals 24 \
    --reads $((millions * 1000000 / 24 + 1)) "$trace"
fi

# "<wall s> <cpu s> <peak KB>" of one run; its standard output goes to $1.
timed() {
  local out=$1
  shift
  /usr/bin/time -f "%e %U %S %M" -o "$out.time" "$@" >"$out"
  awk '{ printf "%s %.2f %s\n", $1, $2 + $3, $4 }' "$out.time"
}
row() { printf '%-22s %8.2f s wall %8.2f s cpu %9d KB peak%s\n' "$@"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "== $(grep -vc '^0 0 0 0$' "$trace/out") reads in $(($(grep -c '^0 0 0 0$' "$trace/out") + 1)) intervals, $(du -h "$trace/out" | cut -f1)"
read -r p_s p_cpu p_kb < <(timed "$trace/report" "$build/zriostatd" -p -i "$trace" -s 0.1 -d 5)
read -r e_s e_cpu e_kb < <(timed "$trace/curve.exact" "$build/zrcurve" -i "$trace" -s 0.1 -d 5 --points "$points")
read -r s_s s_cpu s_kb < <(timed "$trace/curve.sampled" "$build/zrcurve" -i "$trace" -s 0.1 -d 5 --points "$points" --sample "$rate")
sizes=$(grep -c '^ *[0-9]' "$trace/curve.exact")
row "zriostatd -p" "$p_s" "$p_cpu" "$p_kb" ""
row "zrcurve, exact" "$e_s" "$e_cpu" "$e_kb" " ($sizes sizes)"
row "zrcurve --sample $rate" "$s_s" "$s_cpu" "$s_kb" " ($(grep -c '^ *[0-9]' "$trace/curve.sampled") sizes)"
echo "exact curve / profiler run: $(ratio "$e_s" "$p_s")x the wall time"
echo "exact / sampled curve     : $(ratio "$e_s" "$s_s")x the wall time, $(ratio "$e_kb" "$s_kb")x the peak memory"

if ((copies > 1)); then
  big=$traces/heavy-${millions}m-x$copies
  mkdir -p "$big"
  cp "$trace/device_map" "$big/"
  if [[ ! -s "$big/out" ]]; then
    echo "writing $copies copies of the trace one after the other into $big"
    for ((i = 1; i <= copies; i++)); do
      cat "$trace/out"
      ((i == copies)) || echo "0 0 0 0"
    done >"$big/out"
  fi
  echo "== $((millions * copies)) million reads, $(du -h "$big/out" | cut -f1)"
  read -r b_s b_cpu b_kb < <(timed "$big/curve.sampled" "$build/zrcurve" -i "$big" -s 0.1 -d 5 --points "$points" --sample "$rate")
  row "zrcurve --sample $rate" "$b_s" "$b_cpu" "$b_kb" " ($(grep -c '^ *[0-9]' "$big/curve.sampled") sizes)"
  [[ ${KEEP:-0} == 1 ]] || rm -r "$big"
fi
