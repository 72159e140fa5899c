#!/usr/bin/env bash
# Installs build dir $1 with prefix /usr into a temporary DESTDIR and compares
# the tree with the list in $2: leaf directories as "d path", files as
# "f mode path" (modes matter: the unit and man pages must not be executable).
set -euo pipefail
build=$1 expected=$2
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
DESTDIR=$dest cmake --install "$build" --prefix /usr >/dev/null
actual=$(cd "$dest" && find . -mindepth 1 \( -type f -printf 'f %m %P\n' \) -o \
  \( -type d -empty -printf 'd %P\n' \) -o \( ! -type d -printf '? %P\n' \) | sort)
if ! diff <(grep -v '^$' "$expected" | sort -u) <(echo "$actual"); then
  echo "installed tree differs from the list (< expected, > installed)"
  exit 1
fi
