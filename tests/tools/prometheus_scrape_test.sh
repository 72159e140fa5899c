#!/usr/bin/env bash
# zrstat's metrics as Prometheus gets them: `zrstat --prometheus-textfile`
# writes a statistics file's latest record into a directory, the real
# node_exporter from Debian serves it with only its textfile collector on a
# free loopback port, and a scrape must hold every sample `zrstat
# --prometheus` prints, with the values fed in, and no scrape error.  $1 is
# the build directory.  Exit 77 (skipped) without prometheus-node-exporter.
set -euo pipefail
build=$1
exporter=$(command -v prometheus-node-exporter || true)
[[ -n $exporter ]] || { echo "prometheus-node-exporter not installed (tools/install-deps.sh installs it)"; exit 77; }
tmp=$(mktemp -d "${TMPDIR:-/tmp}/zr scrape.XXXXXX")
pid=
trap '[[ -z $pid ]] || { kill "$pid"; wait "$pid" || true; }; rm -rf "$tmp"' EXIT
fail() { echo "$*"; exit 1; }

# Two records; the second, the latest: written at 1795426104, 21 regions
# selected of 120 at threshold 6, drop 5 with last5 10, first5 14 at 6,
# largest drop 6 at count 6 and index 14, volume 7 with its guid.
be() { printf "%0$(($1 * 2))x" "$2" | sed 's/../\\x&/g' | xargs -0 printf; } # $1 bytes of $2, big-endian
record() { # time wl_count nregions threshold volume?
  be 8 "$1"; be 8 "$2"; be 8 "$3"; be 4 $(($# > 4)); be 4 0; be 4 "$4"; be 4 5; be 8 10; be 16 0
  be 8 14; be 4 6; be 8 0; be 4 0; be 8 0; be 4 0; be 4 0; be 4 6; be 4 6; be 8 14; be 16 0
  if (($# > 4)); then be 2 "$5"; printf '\x11\x11\x11\x11\x22\x22\x33\x33\x44\x44\x55\x55\x55\x55\x55\x55'; be 2 0; fi
}
{ record 1795425504 3 4 2; record 1795426104 21 120 6 7; } >"$tmp/stats"
mkdir "$tmp/text dir"
"$build/zrstat" --prometheus-textfile "$tmp/text dir" "$tmp/stats" || fail "zrstat --prometheus-textfile failed"
[[ $(ls -A "$tmp/text dir") == zriostatd.prom ]] || fail "in the directory: $(ls -A "$tmp/text dir")"

port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$exporter" --collector.disable-defaults --collector.textfile --collector.textfile.directory="$tmp/text dir" \
  --web.listen-address="127.0.0.1:$port" 2>"$tmp/exporter.log" &
pid=$!
for ((i = 0; i < 100; i++)); do
  { exec 3<>"/dev/tcp/127.0.0.1/$port"; } 2>/dev/null && break
  sleep 0.1
done
{ printf 'GET /metrics HTTP/1.0\r\n\r\n' >&3 && tr -d '\r' <&3 >"$tmp/scrape"; } 2>/dev/null ||
  fail "no scrape: $(cat "$tmp/exporter.log")"
grep -qx 'node_textfile_scrape_error 0' "$tmp/scrape" || fail "scrape error: $(grep textfile "$tmp/scrape")"

# The same samples, compared as numbers (the exporter writes 1.795426104e+09).
samples() { awk '/^zriostatd_/ { printf "%s %.17g\n", $1, $2 }' "$@" | sort; }
"$build/zrstat" --prometheus "$tmp/stats" >"$tmp/printed"
diff <(samples "$tmp/printed") <(samples "$tmp/scrape") || fail "scraped samples differ (< printed, > scraped)"
while read -r want; do
  grep -qxF "$want" <(samples "$tmp/scrape") || fail "not scraped: $want"
done <<'EOF_VALUES'
zriostatd_record_time_seconds 1795426104
zriostatd_workload_regions 21
zriostatd_workload_gigabytes 0.00128173828125
zriostatd_threshold 6
zriostatd_cut_count{marker="max"} 6
zriostatd_volume_info{guid="{11111111-2222-3333-4444-555555555555}",volume="7"} 1
EOF_VALUES

# --all: every record, each sample stamped with its record's time in ms.
diff <("$build/zrstat" --prometheus --all "$tmp/stats" | grep '^zriostatd_workload_regions ') - <<'EOF_ALL' ||
zriostatd_workload_regions 3 1795425504000
zriostatd_workload_regions 21 1795426104000
EOF_ALL
  fail "--all differs (< printed, > expected)"
