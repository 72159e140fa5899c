#!/usr/bin/env bash
# Times zrtrace on a generated ~1 GB blkparse text, a ~1 GB CSV trace and a
# ~1 GB raw blktrace capture (four per-CPU files), and prints the throughput
# (MB/s of uncompressed input) and the peak memory; the capture is also
# converted the old way, blkparse's text of it then zrtrace, in the same
# run, and the ratio of CPU times printed.  The inputs are made in a
# temporary directory and removed afterwards.
# Usage: bench/convert_trace.sh [path/to/zrtrace] [size in MB, default 1024]
set -euo pipefail
zrtrace="${1:-build/zrtrace}"
mb="${2:-1024}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# blkparse's default output: a queued, issued and completed event per
# request, reads and writes mixed, on two devices; about 80 bytes a line.
awk -v limit=$((mb * 1048576)) 'BEGIN {
  srand(7); bytes = 0; seq = 0; t = 0
  while (bytes < limit) {
    t += rand() * 0.0005; dev = (seq % 2) ? "8,16" : "8,0"; rw = (rand() < 0.7) ? "R" : "WS"
    sector = int(rand() * 2000000000); n = 8 * (1 + int(rand() * 16))
    split("Q D C", act, " ")
    for (i = 1; i <= 3; i++) {
      line = sprintf("%4s %3d %8d %14.9f %5d  %s %3s %d + %d [fio]", dev, seq % 4, ++seq, t + i * 0.00001, 4242, act[i], rw, sector, n)
      print line; bytes += length(line) + 1
    }
  }
}' > "$work/trace.blkparse"

# The Tencent CBS layout: time,offset,size,iotype,volume.
awk -v limit=$((mb * 1048576)) 'BEGIN {
  srand(11); bytes = 0; t = 1538323200
  while (bytes < limit) {
    t += (rand() < 0.001); line = sprintf("%d,%d,%d,%d,%d", t, int(rand() * 4000000000), 8 * (1 + int(rand() * 16)), (rand() < 0.5), 1000 + int(rand() * 200))
    print line; bytes += length(line) + 1
  }
}' > "$work/trace.csv"

# A raw blktrace capture as the kernel writes it: per request a queued,
# get-request, inserted, issued and completed event on one of four CPUs,
# 70% reads, two devices; 48 bytes a record, little-endian.
python3 - "$work/sdb" "$mb" <<'PY'
import random, struct, sys
base, limit = sys.argv[1], int(sys.argv[2]) << 20
rec = struct.Struct("<IIQQIIIIIHH")
random.seed(7)
bufs, seq, t, total = [bytearray() for _ in range(4)], [0] * 4, 10**9, 0
while total < limit:
    t += random.randrange(1, 500000)
    cpu = random.randrange(4)
    dev = 8 << 20 | (16 if random.random() < 0.5 else 0)
    rw = 0x10000 if random.random() < 0.7 else 0x20000
    sector, nbytes = random.randrange(2000000000), 4096 * random.randrange(1, 17)
    for k, act in enumerate((0x100001, 0x100004, 0x10000c, 0x400007, 0x800008)):
        seq[cpu] += 1
        bufs[cpu] += rec.pack(0x65617407, seq[cpu], t + k * 1000, sector, nbytes, act | rw, 4242, dev, cpu, 0, 0)
        total += 48
    if len(bufs[cpu]) >= 4 << 20 or total >= limit:
        for c in range(4):
            with open(f"{base}.blktrace.{c}", "ab") as f:
                f.write(bufs[c])
            bufs[c] = bytearray()
PY

# Runs a command under /usr/bin/time and prints its line; leaves its CPU
# seconds in $cpu.
measure() { # name size-in-bytes command...
  local name=$1 size=$2
  shift 2
  /usr/bin/time -v "$@" 2> "$work/time.txt" > /dev/null || { cat "$work/time.txt"; exit 1; }
  elapsed=$(awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s }' "$work/time.txt")
  user=$(awk -F': ' '/User time/ { print $2 }' "$work/time.txt")
  sys=$(awk -F': ' '/System time/ { print $2 }' "$work/time.txt")
  rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/time.txt")
  cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { print u + s }')
  # On a shared machine the wall clock counts other programs' time too; the
  # CPU time (user + system) is what one core spent on this conversion.
  awk -v name="$name" -v size="$size" -v e="$elapsed" -v u="$user" -v s="$sys" -v rss="$rss" 'BEGIN {
    mb = size / 1048576
    printf "%-22s %6.0f MB: %6.2f s wall, %6.2f s CPU (%5.2f user + %5.2f sys): %6.1f MB/s wall, %6.1f MB/s CPU; peak RSS %.1f MB\n",
      name, mb, e, u + s, u, s, mb / e, mb / (u + s), rss / 1024 }'
  grep '^zrtrace: reads kept' "$work/time.txt" || true
}

for input in trace.blkparse trace.csv; do
  measure "$input" "$(stat -c %s "$work/$input")" "$zrtrace" --no-sysfs "$work/$input" "$work/out-$input"
  rm -rf "$work/out-$input"
done

raw=$(cat "$work"/sdb.blktrace.* | wc -c)
measure "blktrace (raw)" "$raw" "$zrtrace" "$work/sdb" "$work/out-raw"
raw_cpu=$cpu
if command -v blkparse >/dev/null; then
  measure "  blkparse" "$raw" blkparse -q -i "$work/sdb" -o "$work/sdb.txt"
  old_cpu=$cpu
  measure "  then zrtrace" "$(stat -c %s "$work/sdb.txt")" "$zrtrace" "$work/sdb.txt" "$work/out-text"
  old_cpu=$(awk -v a="$old_cpu" -v b="$cpu" 'BEGIN { print a + b }')
  cmp -s "$work/out-raw/out" "$work/out-text/out" && cmp -s "$work/out-raw/device_map" "$work/out-text/device_map" ||
    { echo "the raw and the blkparse-text conversions differ" >&2; exit 1; }
  awk -v raw="$raw_cpu" -v old="$old_cpu" 'BEGIN {
    printf "raw blktrace: %.2f s CPU; blkparse + zrtrace: %.2f s CPU; %.1f times faster, same out and device_map\n", raw, old, old / raw }'
else
  echo "blkparse not installed (Debian package blktrace): no comparison"
fi
