#!/usr/bin/env bash
# Runs the real daemon without the volume manager: the substitute driver
# (tools/fakedriver, preloaded) answers its requests with one sample per
# 600-second interval of the bundled trace examples/oltp, and keeps its files
# in a temporary directory instead of /etc/zr.  After a few two-second cycles
# the daemon is stopped by its pid (it ignores SIGTERM) and the statistics
# file is shown: with zrstat when the build has it, else as a summary of each
# record's header and a hex dump of the first record.
#
#   tools/daemon-demo.sh [BUILD_DIR]     (default: build)
# Exit status 0 when the daemon wrote the records and was stopped, 1 otherwise.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build}" && pwd)
cycles=3
daemon=$build/zriostatd
driver=$build/tools/fakedriver/libfakedriver.so
for f in "$daemon" "$driver"; do
  [[ -e $f ]] || { echo "daemon-demo: $f missing: build first" >&2; exit 1; }
done

dir=$(mktemp -d)
pid=
cleanup() {
  [[ -n $pid ]] && kill -KILL "$pid" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT
mkdir -p "$dir/etc/zr/log"
# The driver's scenario and the loader take paths up to the first blank:
# what they name is reached from the temporary directory.
ln -s "$here/../examples/oltp" "$dir/oltp"
stats=$dir/etc/zr/.zrvm_stats log=$dir/etc/zr/log/zriostatd.log

# The four devices of the trace become volumes 0 to 3, in the order in which
# they first appear in it.
cat >"$dir/scenario" <<EOF
info 1 65536
guid 5a0e1c2d-0001-4000-8000-00000000d3d0
volume 0 5a0e1c2d-0000-4000-8000-000000000000
volume 1 5a0e1c2d-0000-4000-8000-000000000001
volume 2 5a0e1c2d-0000-4000-8000-000000000002
volume 3 5a0e1c2d-0000-4000-8000-000000000003
trace $dir/oltp
EOF

# The header fields of every record, one line each; the number of records
# on the last line.
summarise() {
  local file=$1 size off=0 n=0 nvol wl details
  size=$(stat -c %s "$file")
  field() { od -A n -t "u$2" --endian=big -j $((off + $1)) -N "$2" "$file" | tr -d ' '; }
  while ((off + 136 <= size)); do
    nvol=$(field 24 4) wl=$(field 8 8) details=$(field 100 4)
    printf 'record %d at %d: time %s, %s regions selected of %s, %s volumes, threshold %s, details %s\n' \
      $((n + 1)) "$off" "$(date -u -d @"$(field 0 8)" +%T)" "$wl" "$(field 16 8)" "$nvol" \
      "$(field 32 4)" "$details"
    off=$((off + 136 + 20 * nvol + (details != 0 ? 16 * wl : 0)))
    n=$((n + 1))
  done
  echo "$n records, $size bytes"
}

echo "== zriostatd -x interval=1 -x numiter=2 -x writefile=details, under the substitute driver in $dir"
ASAN_OPTIONS=verify_asan_link_order=0:${ASAN_OPTIONS:-} LD_LIBRARY_PATH=${driver%/*} LD_PRELOAD=${driver##*/} \
  FAKEDRIVER_SCENARIO=$dir/scenario FAKEDRIVER_LOG=$dir/requests FAKEDRIVER_ROOT=$dir \
  "$daemon" -x interval=1 -x numiter=2 -x writefile=details

for ((i = 0; i < 300 && ${records:-0} < cycles; i++)); do
  sleep 0.1
  [[ -z $pid && -s $log ]] && pid=$(sed -n 's/.*started with pid:\([0-9]*\).*/\1/p' "$log" | head -n 1)
  [[ -s $stats ]] && records=$(summarise "$stats" | tail -n 1 | cut -d' ' -f1)
done
echo "== log"
cat "$log"
if [[ -z $pid ]]; then
  echo "daemon-demo: the daemon did not start" >&2
  exit 1
fi
echo "== stopping the daemon: kill -KILL $pid"
kill -KILL "$pid"
# Gone, or a zombie waiting for whoever adopted it.
for ((i = 0; i < 50; i++)); do
  state=$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null || true)
  [[ -z $state || $state == Z ]] && break
  sleep 0.1
done
if [[ -n $state && $state != Z ]]; then
  echo "daemon-demo: pid $pid still running after SIGKILL" >&2
  exit 1
fi
pid=
if ((${records:-0} < cycles)); then
  echo "daemon-demo: ${records:-0} records after 30 seconds, $cycles expected" >&2
  exit 1
fi

echo "== the statistics file"
zrstat=$(find "$build" -maxdepth 4 -name zrstat -type f -perm -u+x | head -n 1)
if [[ -n $zrstat ]]; then
  "$zrstat" "$stats"
else
  summarise "$stats"
  echo "its first 256 bytes:"
  od -A d -t x1 -N 256 "$stats"
fi
