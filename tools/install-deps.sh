#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, and only those
# that are missing.  The README's commands and .ci/run both start here, so
# this list is the only one.  Needs root and apt-get only when something is
# missing; otherwise it says so in one line and exits 1.  With --fuzz it
# also installs the fuzzing toolchain.
set -euo pipefail

packages=(
  cmake ninja-build g++            # the build
  libgtest-dev libgmock-dev        # the tests
  libbenchmark-dev                 # bench/ (-DZRIOSTAT_BENCH=ON)
  locales libc-bin libc-dev-bin    # locale sources, localedef, gencat for the catalogue tests
  python3                          # tools/ (trace generator and converter)
  zlib1g-dev libzstd-dev           # compressed traces (zrtrace)
  libxxhash-dev                    # the hash of zrcurve --sample
  nlohmann-json3-dev               # --json output of the companion tools
  mandoc                           # man page lint test
  libxml2-utils                    # xmllint, which checks zrcurve's SVG in the tests
  linux-libc-dev blktrace          # blktrace_api.h for zrtrace; blkparse, which its test compares with
  dpkg-dev file                    # hardening flags; the package (cpack: shlibdeps, strip)
  lintian                          # the package test
  prometheus-node-exporter         # the Prometheus scrape test
  systemd                          # systemd-analyze, which verifies and rates the units
)
# --fuzz: also what the libFuzzer targets (fuzz/, tools/fuzz.sh) build with.
if [[ "${1:-}" == --fuzz ]]; then
  packages+=(clang libclang-rt-14-dev)
fi

me=${0##*/}
if ! command -v dpkg-query >/dev/null; then
  echo "$me: no dpkg-query: install these Debian packages by other means: ${packages[*]}" >&2
  exit 1
fi

missing=()
for pkg in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
((${#missing[@]})) || exit 0

if ! command -v apt-get >/dev/null; then
  echo "$me: no apt-get: install these Debian packages by other means: ${missing[*]}" >&2
  exit 1
fi
if ((EUID != 0)); then
  echo "$me: not root: run as root, or ask an administrator to install: ${missing[*]}" >&2
  exit 1
fi

echo "$me: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
