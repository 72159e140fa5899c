#!/usr/bin/env bash
# tools/install-deps.sh on a machine where every package is missing: without
# apt-get, and without root, it says why in one line on stderr and exits 1.
# The script runs from a copy that the unprivileged user can read, since the
# checkout may be readable by root only.
set -euo pipefail
bin=$(mktemp -d)
trap 'rm -rf "$bin"' EXIT
chmod 755 "$bin"
script=$bin/install-deps.sh
install -m 755 "$1" "$script"
printf '#!/bin/sh\nexit 1\n' >"$bin/dpkg-query" # nothing is installed
ln -s "$(command -v grep)" "$bin/grep"

check() { # expected message start, command prefix
  local expected=$1 status=0
  shift
  "$@" env PATH="$bin" /bin/bash "$script" >"$bin/out" 2>"$bin/err" || status=$?
  if [[ $status != 1 || -s $bin/out || $(wc -l <"$bin/err") != 1 ]] ||
     ! grep -q "^install-deps.sh: $expected: .*cmake ninja-build" "$bin/err"; then
    echo "$expected: status $status, stdout '$(cat "$bin/out")', stderr '$(cat "$bin/err")'"
    exit 1
  fi
}
chmod +x "$bin/dpkg-query"
check "no apt-get"
printf '#!/bin/sh\necho apt-get called >&2\nexit 3\n' >"$bin/apt-get"
chmod +x "$bin/apt-get"
if ((EUID == 0)); then
  check "not root" setpriv --reuid=65534 --regid=65534 --clear-groups
else
  check "not root"
fi
