#!/usr/bin/env bash
# Every tool whose data goes to standard output, with standard output on
# /dev/full: the output is lost, so each must end with status 1 and say so
# in exactly one line on standard error (why: the write's error, or "write
# error" when the stream no longer knows it).  $1 is the build directory, $2 the
# source directory.  Exit 77 (skipped) where /dev/full is missing.
set -euo pipefail
build=$1 src=$2
[[ -c /dev/full ]] || { echo "no /dev/full here"; exit 77; }
cd "$src" # the commands below are split at blanks: their paths must have none
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# One record, header only: 1 region selected of 1, drop factor 5 at index 1.
zeros() { head -c "$1" /dev/zero; }
{ zeros 15; printf '\1'; zeros 7; printf '\1'; zeros 15; printf '\5'; zeros 7; printf '\1'; zeros 88; } >"$tmp/stats"

# command | what the one line of standard error holds
cases=(
  "zriostatd -p -i examples/oltp -s 0.1 -d 5|ERROR Q-5-1-0 Failed to write the report: "
  "zrstat $tmp/stats|zrstat: standard output: "
  "zrstat --json --details $tmp/stats|zrstat: standard output: "
  "zrstat --prometheus $tmp/stats|zrstat: standard output: "
  "zrstat --follow $tmp/stats|zrstat: standard output: "
  "zrcurve -i examples/oltp --sizes 1,2|zrcurve: standard output: "
  "zrcurve -i examples/oltp --sizes 1,2 --csv -|zrcurve: standard output: "
  "zrcurve --help|zrcurve: standard output: "
  "zrstat --version|zrstat: standard output: "
)
failed=0
for c in "${cases[@]}"; do
  read -r -a cmd <<<"${c%%|*}"
  status=0
  timeout 20 "$build/${cmd[0]}" "${cmd[@]:1}" >/dev/full 2>"$tmp/err" || status=$?
  if [[ $status != 1 || $(wc -l <"$tmp/err") != 1 ]] || ! grep -qF -- "${c#*|}" "$tmp/err"; then
    echo "${c%%|*}: status $status, stderr: $(cat "$tmp/err")"
    failed=1
  fi
done
exit $failed
