#!/usr/bin/env bash
# Installs build dir $1 with prefix /usr into a temporary DESTDIR and compares
# the tree with the list in $2: leaf directories as "d path", files as
# "f mode path" (modes matter: the units and man pages must not be
# executable).  Then installs to a personal prefix, as a user without root
# would: everything lands under it, /etc files in <prefix>/etc, and a
# catalogue root outside it is left out with a note.  Both go to paths with
# a space, which every install rule must quote.
set -euo pipefail
build=$1 expected=$2
tmp=$(mktemp -d "${TMPDIR:-/tmp}/zr install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
tree() {
  (cd "$1" && find . -mindepth 1 \( -type f -printf 'f %m %P\n' \) -o \
    \( -type d -empty -printf 'd %P\n' \) -o \( ! -type d -printf '? %P\n' \) | sort)
}

DESTDIR="$tmp/dest dir" cmake --install "$build" --prefix /usr >/dev/null
if ! diff <(grep -v '^$' "$expected" | sort -u) <(tree "$tmp/dest dir"); then
  echo "installed tree differs from the list (< expected, > installed)"
  exit 1
fi

prefix="$tmp/my prefix"
log=$(cmake --install "$build" --prefix "$prefix")
# The /usr tree moved under the prefix, less the catalogue root when that
# lies outside it.
want=$(grep -v '^$' "$expected" | sed -e 's# usr/# #' -e '/^d /d' | sort -u)
root=$(sed -n 's/^d //p' "$expected")
if [[ "/$root" != "$prefix"/* ]]; then
  grep -q "^-- Skipping: /$root: " <<<"$log" || { echo "no note on the catalogue root /$root: $log"; exit 1; }
else
  want=$(printf '%s\nd %s\n' "$want" "${root#"${prefix#/}/"}" | sort)
fi
if ! diff <(echo "$want") <(tree "$prefix"); then
  echo "tree under the prefix differs (< expected, > installed)"
  exit 1
fi
