#!/usr/bin/env bash
# The error of zrcurve's sampled curves: for each trace and each rate 0.1,
# 0.01 and 0.001, the curve sampled at that rate against the exact one at
# the same sizes (those of the exact curve's default rows, given to both as
# --sizes), as the mean and largest absolute difference of the hit ratio per
# read and per region access, in percentage points.
#
#   bench/curve_accuracy.sh                 # build/zrcurve, build/zrtrace
#   BUILD_DIR=/tmp/rel bench/curve_accuracy.sh
#
# Traces: the bench and heavy presets of tools/gen_trace.py (in
# TRACE_DIR/<preset>, made as bench/profile_trace.sh makes them, or reused),
# examples/oltp and examples/scan, and every sample in SAMPLES_DIR
# (../shared/traces by default) converted with zrtrace into a temporary
# directory.  The samples last seconds; each is stretched in time (or cut by
# reads) to a few 600-second intervals, so that the thresholds matter.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
traces=${TRACE_DIR:-${TMPDIR:-/tmp}/zriostat-bench-trace}
samples=${SAMPLES_DIR:-$root/../shared/traces}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

dirs=()
for preset in bench heavy; do
  if [[ ! -s "$traces/$preset/out" ]]; then
    echo "generating the $preset trace into $traces/$preset (takes a while)" >&2
    python3 "$root/tools/gen_trace.py" --preset "$preset" "$traces/$preset"
  fi
  dirs+=("$traces/$preset")
done
dirs+=("$root/examples/oltp" "$root/examples/scan")

# name, then zrtrace's options for it.
convert() {
  local name=$1 file=$samples/$2
  shift 2
  [[ -e "$file" ]] || return 0
  "$build/zrtrace" "$@" "$file" "$work/$name" >/dev/null 2>&1 || { echo "cannot convert $file" >&2; return 0; }
  dirs+=("$work/$name")
}
convert cloudphysics cloudphysics-2h.csv -f cloudphysics
convert websearch websearch-small.trace -f ascii --time-scale 60
convert tpcc tpcc-small.trace -f ascii --time-scale 25000
convert msr-hm0 msr-hm0-sample.csv -f msr --time-scale 30
convert systor systor-sample.csv -f systor --time-scale 1500
convert tencent tencent-block-sample.csv -f tencent --time-scale 3600
convert arc-P3 arc-P3.lis.zst -f arc --reads-per-interval 40000
convert arc-OLTP arc-OLTP.lis.zst -f arc --reads-per-interval 100000

printf '%-14s %9s %6s %10s %6s  %-15s %-15s\n' trace reads rate kept sizes "per read" "per region"
printf '%-14s %9s %6s %10s %6s  %-15s %-15s\n' "" "" "" "regions" "" "mean / max" "mean / max"
for dir in "${dirs[@]}"; do
  name=$(basename "$dir")
  "$build/zrcurve" -i "$dir" --csv - >"$work/default.csv"
  sizes=$(awk -F, 'NR > 1 { printf "%s%sr", sep, $1; sep = "," }' "$work/default.csv")
  [[ -n "$sizes" ]] || continue
  "$build/zrcurve" -i "$dir" --sizes "$sizes" --csv - >"$work/exact.csv"
  reads=$(awk -F, 'NR == 2 { print $3 + $4 }' "$work/exact.csv")
  for rate in 0.1 0.01 0.001; do
    "$build/zrcurve" -i "$dir" --sizes "$sizes" --sample "$rate" --json "$work/sampled.json" --csv - \
      >"$work/sampled.csv"
    kept=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["sampled_regions"])' \
      "$work/sampled.json")
    # Columns 5 and 8: the hit ratio per read and per region access.
    paste -d, "$work/exact.csv" "$work/sampled.csv" | awk -F, -v name="$name" -v reads="$reads" \
      -v rate="$rate" -v kept="$kept" 'NR == 1 { n = NF / 2; next }
      { d = $5 - $(n + 5); d = d < 0 ? -d : d; s1 += d; m1 = d > m1 ? d : m1
        d = $8 - $(n + 8); d = d < 0 ? -d : d; s2 += d; m2 = d > m2 ? d : m2; rows++ }
      END { printf "%-14s %9d %6s %10d %6d  %5.2f / %-7.2f %5.2f / %-7.2f\n", name, reads, rate, kept, rows,
              s1 / rows, m1, s2 / rows, m2 }'
  done
done
