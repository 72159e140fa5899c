#!/usr/bin/env bash
# The installed systemd units, as systemd itself reads them: installs build
# dir $1 to a prefix whose path has a space, so that the units name real
# binaries there, and runs `systemd-analyze verify` on every unit and
# `systemd-analyze security` on each service, whose exposure must stay at
# most 3.0.  Exit 77 (skipped) without systemd-analyze; no running systemd
# is needed.
set -euo pipefail
build=$1
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not installed (package systemd)"; exit 77; }
tmp=$(mktemp -d "${TMPDIR:-/tmp}/zr units.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/usr" >/dev/null
units=("$tmp"/usr/lib/systemd/system/*)
((${#units[@]} == 4)) || { echo "units installed: ${units[*]}"; exit 1; }

if ! systemd-analyze verify --man=no "${units[@]}" >"$tmp/verify.log" 2>&1; then
  echo "systemd-analyze verify:"; cat "$tmp/verify.log"; exit 1
fi
for service in "$tmp"/usr/lib/systemd/system/*.service; do
  if ! systemd-analyze security --offline=true --threshold=30 "$service" >"$tmp/security.log" 2>&1; then
    echo "systemd-analyze security ${service##*/}: exposure above 3.0:"
    grep -E '^✗|Overall' "$tmp/security.log"
    exit 1
  fi
done
