#!/usr/bin/env bash
# Runs the libFuzzer targets (fuzz/) for a while each and reports what they
# did.  Usage:
#
#   tools/fuzz.sh [-t SECONDS] [-w WORKERS] [-b BUILD_DIR] [TARGET...]
#
#   -t  seconds of fuzzing per target, wall clock [60]
#   -w  fuzzing processes per target [2, or fewer on a smaller machine]
#   -b  build directory, configured with clang and ZRIOSTAT_FUZZ=ON if it is
#       not yet [build-fuzz]
#   TARGET  trace_scan_fuzz, profiler_fuzz, iostat_pages_fuzz, guid_map_fuzz,
#           stats_file_fuzz, trace_convert_fuzz
#           [all of them]
#
# Seeds are made afresh at every run from the examples, the tests' inputs
# and ../shared/traces (when present) under BUILD_DIR/seeds; what the
# fuzzer learns accumulates in BUILD_DIR/corpus/TARGET.  A crash is
# minimised into fuzz/regressions/TARGET-<kind>-<hash> for a regression
# test; the script then exits 1.  Per target it prints the CPU seconds used,
# executions per second and coverage (cov: edges, ft: features).
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD

seconds=60
workers=$(($(nproc) < 2 ? 1 : 2))
build=build-fuzz
while getopts "t:w:b:" opt; do
  case $opt in
  t) seconds=$OPTARG ;;
  w) workers=$OPTARG ;;
  b) build=$OPTARG ;;
  *) sed -n '2,21p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
all=(trace_scan_fuzz profiler_fuzz iostat_pages_fuzz guid_map_fuzz stats_file_fuzz
     trace_convert_fuzz)
targets=("${@:-${all[@]}}")

if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZRIOSTAT_FUZZ=ON -DZRIOSTAT_TESTS=OFF >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}" >/dev/null
build=$(cd "$build" && pwd)

# ---- Seeds -----------------------------------------------------------------
traces=$src/../shared/traces
seeds=$build/seeds
rm -rf "$seeds"
mkdir -p "$seeds"/{trace_scan_fuzz,profiler_fuzz,iostat_pages_fuzz,guid_map_fuzz,stats_file_fuzz,trace_convert_fuzz}

# Reads of a shared trace ("arrival device start size type", type 1 a read)
# as trace lines of device (8, 16 * device), a separator every 20 lines.
shared_trace() {
  awk -v max="$2" '$5 == 1 { print 8, 16 * $2, $3, $4; if (++n % 20 == 0) print "0 0 0 0"
                             if (n >= max) exit }' "$1"
}

n=0
for f in examples/*/out tests/daemon/data/*/out; do
  n=$((n + 1))
  i=0
  while IFS= read -r line; do
    printf '%s\n' "$line" >"$seeds/trace_scan_fuzz/line$n.$((i++))"
  done < <(head -n 8 "$f")
done
printf '%s\n' "0 0 0 0" "-2147483649 4294967296 18446744073709551616 -1" \
  " +7 -0 0x10 1e3" "8" "8 16" "8 16 99" $'\t8\v16\f1\r2' >"$seeds/trace_scan_fuzz/edges"

for d in examples/*/ tests/daemon/data/*/; do
  d=${d%/}
  name=$(basename "$d")
  { head -n 30 "$d/out"; echo "0 0 0 0"; sed -n '31,60p' "$d/out"
    if [[ -f $d/device_map ]]; then echo "@map"; cat "$d/device_map"; fi
  } >"$seeds/profiler_fuzz/$name"
done
for t in websearch-small tpcc-small; do
  if [[ -f $traces/$t.trace ]]; then
    { shared_trace "$traces/$t.trace" 60; echo "@map"
      for dev in 0 1 2 3 4 5; do echo "disk$dev 8 $((16 * dev)) 1000000"; done
    } >"$seeds/profiler_fuzz/$t"
  fi
done

# Converter inputs: the head of each plain-text sample, once with the
# format guessed (format byte 255) and once with every format named; and a
# blkparse text.  The two leading bytes are the format and the flags.
convert_seed() { # name format-byte flags-byte file
  { printf "\\$(printf %o "$2")\\$(printf %o "$3")"; head -n 40 "$4"; } \
    >"$seeds/trace_convert_fuzz/$1"
}
for f in "$traces"/*.csv "$traces"/*.trace; do
  [[ -f $f ]] || continue
  name=$(basename "$f")
  convert_seed "$name.guess" 255 0 "$f"
  for i in 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do convert_seed "$name.$i" "$i" 1 "$f"; done
done
printf '%s\n' "  8,0    1        1     0.000000000  4242  Q   R 2048 + 8 [fio]" \
  "  8,0    1        2     0.000010000  4242  C   R 2048 + 8 [fio]" \
  "  8,16   0        3   700.000000000  4242  Q  WS 4096 + 16 [fio]" \
  "CPU0 (8,0):" " Reads Queued:           1,        4KiB" >"$seeds/blkparse.txt"
convert_seed blkparse 255 0 "$seeds/blkparse.txt"
rm "$seeds/blkparse.txt"
# A raw blktrace capture: a queued read, a message with its text, an issued
# write 700 s later, as the kernel's little-endian records.
python3 - "$seeds/trace_convert_fuzz" <<'PY'
import struct, sys
def rec(seq, t, sector, nbytes, action, pdu=b""):
    return struct.pack("<IIQQIIIIIHH", 0x65617407, seq, t, sector, nbytes, action, 42, 8 << 20 | 16, 0, 0,
                       len(pdu)) + pdu
cap = rec(1, 10**9, 2048, 4096, 0x110001) + rec(2, 2 * 10**9, 0, 0, 0x4000002, b"hi") + rec(3, 7 * 10**11, 64, 512, 0x420007)
open(sys.argv[1] + "/blktrace", "wb").write(b"\xff\x00" + cap)
# vscsi version 2, oracleGeneral and lcs version 2 records, little-endian.
v2 = lambda cmd, ln, lbn, ts: struct.pack("<HHIIIQQQ", cmd, 0x200, 1, ln, 1, lbn, ts, 5)
open(sys.argv[1] + "/vscsi", "wb").write(b"\xff\x04" + v2(0x28, 4096, 100, 10**6) + v2(0x88, 512, 7, 601 * 10**6))
og = lambda t, i, s, n: struct.pack("<IQIq", t, i, s, n)
open(sys.argv[1] + "/oracleGeneral", "wb").write(b"\xff\x00" + og(10, 100, 4096, 2) + og(20, 8, 1000, -1))
lcs = struct.pack("<QQ", 0x123456789abcdef0, 2).ljust(8184, b"\0") + struct.pack("<Q", 0x123456789abcdef0)
l2 = lambda t, i, s, op: struct.pack("<IQIIq", t, i, s, op, -1)
open(sys.argv[1] + "/lcs", "wb").write(b"\xff\x00" + lcs + l2(1, 5, 4096, 12) + l2(1, 6, 512, 13))
PY

# Driver answers: little-endian binary records, as the targets' comments
# lay them out.
python3 - "$seeds" <<'PY'
import struct, sys
seeds = sys.argv[1]
def page(entries, slack=0):
    body = b"".join(struct.pack("<IIQQ", v, c, r, 0) for v, r, c in entries)
    size = 32 + len(body) + slack
    hdr = struct.pack("<IIII16x", size, 0, len(entries), len(entries))
    return (hdr + body).ljust((size + 7) // 8 * 8, b"\0")
two = page([(7, 1000, 5), (7, 1001, 3)]) + page([(7, 1000, 2), (70000, 1000, 1)], slack=4)
for name, flags, pages, area in [("two_pages", 0, 2, two), ("grow", 1, 2, two),
                                 ("debug", 3 << 2, 2, two), ("fails", 2, 2, two),
                                 ("claims_more", 0, 9, two), ("empty", 0, 0, b"")]:
    open(f"{seeds}/iostat_pages_fuzz/{name}", "wb").write(struct.pack("<BI", flags, pages) + area)
def answer(kind, count, entries):
    return struct.pack("<BIB", kind, count, len(entries)) + b"".join(
        struct.pack("<I", v) + bytes(range(i, i + 16)) for i, v in enumerate(entries))
for name, nvols, debug, answers in [
        ("done", 3, 0, [answer(0, 3, [7, 263, 300])]),
        ("grows", 1, 0, [answer(1, 4, []), answer(0, 4, [7, 263, 300, 70000])]),
        ("overclaims", 2, 5, [answer(3, 1000, [1, 2])]),
        ("refused", 2, 0, [answer(2, 0, [])])]:
    open(f"{seeds}/guid_map_fuzz/{name}", "wb").write(
        struct.pack("<HB", nvols, debug) + b"".join(answers))
# Statistics-file records, big-endian: the 136-byte header, 20 bytes a
# volume (an 18-byte record each, back to back), then 16 bytes a detail.
def record(t, details, vols):
    hdr = struct.pack(">qQQIIII", t, len(details), 120, len(vols), 0, 6, 5)
    hdr += struct.pack(">QQQQIQIQIII", 10, 0, 0, 10, 40, 20, 6, 20, 6, 1 if details else 0, 3)
    hdr += struct.pack(">IQ", 2, 10).ljust(136 - len(hdr), b"\0")
    area = b"".join(struct.pack(">H", v) + bytes(range(v % 200, v % 200 + 16)) for v in vols)
    area = area.ljust(20 * len(vols), b"\0")
    return hdr + area + b"".join(struct.pack(">IQI", v, r, c) for v, r, c in details)
one = record(1795400000, [(7, 1000 + i, 40 - i) for i in range(3)], [7, 263])
for name, data in [("one", one), ("two", one + record(1795400600, [], [7])),
                   ("torn", one + one[:100])]:
    open(f"{seeds}/stats_file_fuzz/{name}", "wb").write(data)
PY

# ---- Runs ------------------------------------------------------------------
options() {
  case $1 in
  trace_scan_fuzz) echo "-max_len=300 -dict=$src/fuzz/trace.dict" ;;
  # The fixed-fraction replay sizes its cache block from the device map's
  # sizes up front, as designed, and touches only what it fills: the
  # allocation limit would call a large map a failure.
  profiler_fuzz) echo "-max_len=4096 -dict=$src/fuzz/trace.dict -malloc_limit_mb=1048576" ;;
  *) echo "-max_len=4096" ;;
  esac
}

status=0
# exec/s is per fuzzing process and second of wall clock; on a busy machine
# exec/cpu_s (executions per CPU second) says more.
printf '%-18s %6s %9s %8s %11s %8s %6s %s\n' target cpu_s execs exec/s exec/cpu_s cov ft crashes
for t in "${targets[@]}"; do
  bin=$build/fuzz/$t
  work=$build/runs/$t
  rm -rf "$work"
  mkdir -p "$work/artifacts" "$build/corpus/$t"
  # shellcheck disable=SC2046
  # The shell's own timing gives the CPU time of the fuzzer and its jobs.
  TIMEFORMAT='%U %S'
  { time nice -n 10 "$bin" $(options "$t") -timeout=30 -close_fd_mask=3 -print_final_stats=1 \
      -jobs="$workers" -workers="$workers" -max_total_time="$seconds" \
      -artifact_prefix="$work/artifacts/" "$build/corpus/$t" "$seeds/$t" \
      >"$work/main.log" 2>&1 </dev/null || true; } 2>"$work/cpu"
  # libFuzzer writes the jobs' logs into the working directory.
  mv fuzz-*.log "$work/" 2>/dev/null || true
  cpu=$(awk '{ printf "%.1f", $1 + $2 }' "$work/cpu")
  execs=$(cat "$work"/fuzz-*.log 2>/dev/null | awk '/stat::number_of_executed_units/ { s += $2 } END { print s + 0 }')
  last=$(cat "$work"/fuzz-*.log 2>/dev/null | grep -E '^#[0-9]+.*cov: ' | tail -n 1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  crashes=0
  for a in "$work"/artifacts/*; do
    [[ -e $a ]] || continue
    crashes=$((crashes + 1))
    kind=$(basename "$a" | cut -d- -f1)
    mkdir -p fuzz/regressions
    out=fuzz/regressions/$t-$kind-$(sha1sum "$a" | cut -c1-12)
    nice -n 10 "$bin" $(options "$t") -minimize_crash=1 -max_total_time=60 \
      -exact_artifact_path="$out" "$a" >"$work/minimize.log" 2>&1 || true
    [[ -s $out ]] || cp "$a" "$out"
    echo "  $t: $kind, minimised into $out ($(wc -c <"$out") bytes)"
    status=1
  done
  if ((execs == 0)); then
    echo "  $t did not run:" && tail -n 5 "$work"/fuzz-0.log "$work/main.log" | sed 's/^/    /'
    status=1
  fi
  rate=$(awk -v e="$execs" -v s="$seconds" -v w="$workers" 'BEGIN { printf "%.0f", e / (s * w) }')
  cpu_rate=$(awk -v e="$execs" -v c="$cpu" 'BEGIN { printf "%.0f", (c > 0 ? e / c : 0) }')
  printf '%-18s %6s %9s %8s %11s %8s %6s %s\n' "$t" "$cpu" "$execs" "$rate" "$cpu_rate" "${cov:-?}" \
    "${ft:-?}" "$crashes"
done
exit $status
