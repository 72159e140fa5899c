#!/usr/bin/env bash
# Times zrtrace on a generated ~1 GB blkparse text and a ~1 GB CSV trace and
# prints the throughput (MB/s of uncompressed input) and the peak memory.
# The inputs are made in a temporary directory and removed afterwards.
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

for input in trace.blkparse trace.csv; do
  size=$(stat -c %s "$work/$input")
  /usr/bin/time -v "$zrtrace" --no-sysfs "$work/$input" "$work/out-$input" 2> "$work/time.txt" || { cat "$work/time.txt"; exit 1; }
  elapsed=$(awk -F': ' '/Elapsed \(wall clock\)/ { n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s }' "$work/time.txt")
  user=$(awk -F': ' '/User time/ { print $2 }' "$work/time.txt")
  sys=$(awk -F': ' '/System time/ { print $2 }' "$work/time.txt")
  rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$work/time.txt")
  # On a shared machine the wall clock counts other programs' time too; the
  # CPU time (user + system) is what one core spent on this conversion.
  awk -v name="$input" -v size="$size" -v e="$elapsed" -v u="$user" -v s="$sys" -v rss="$rss" 'BEGIN {
    mb = size / 1048576
    printf "%-15s %6.0f MB: %6.2f s wall, %6.2f s CPU (%5.2f user + %5.2f sys): %6.1f MB/s wall, %6.1f MB/s CPU; peak RSS %.1f MB\n",
      name, mb, e, u + s, u, s, mb / e, mb / (u + s), rss / 1024 }'
  grep '^zrtrace: reads kept' "$work/time.txt"
  rm -rf "$work/out-$input"
done
