#!/usr/bin/env bash
# Builds the Debian package of build dir $1 as a builder with umask 027
# would, and checks what a Debian maintainer would: directories 0755,
# configuration files under /etc marked as such, the licence, a real
# maintainer, Debian's hardening on every binary, and lintian with no error
# and no warning.  Exit 77 (skipped) when lintian is not installed.
set -euo pipefail
build=$1
command -v lintian >/dev/null || { echo "lintian not installed (tools/install-deps.sh installs it)"; exit 77; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "$*"; exit 1; }

(umask 027 && cpack --config "$build/CPackConfig.cmake" -B "$tmp/package" >"$tmp/cpack.log" 2>&1) ||
  fail "cpack failed: $(cat "$tmp/cpack.log")"
deb=$(echo "$tmp"/package/zriostatd_*.deb)
dpkg-deb -c "$deb" | awk '$1 ~ /^d/ && $1 != "drwxr-xr-x" {print}' >"$tmp/bad-dirs"
[[ ! -s $tmp/bad-dirs ]] || fail "directories not 0755: $(cat "$tmp/bad-dirs")"
[[ $(dpkg-deb -f "$deb" Maintainer) != *@localhost* ]] || fail "maintainer at localhost"
dpkg-deb -e "$deb" "$tmp/control"
diff <(dpkg-deb -c "$deb" | awk '{print substr($6, 2)}' | grep '^/etc/.*[^/]$') "$tmp/control/conffiles" ||
  fail "files under /etc and conffiles differ"

dpkg-deb -x "$deb" "$tmp/root"
grep -q '^License: Expat' "$tmp/root/usr/share/doc/zriostatd/copyright" || fail "no licence in copyright"
for bin in "$tmp"/root/usr/sbin/* "$tmp"/root/usr/bin/*; do
  readelf -d "$bin" | grep >/dev/null 'FLAGS_1.*NOW.*PIE' || fail "$bin: not PIE with bind-now"
  readelf -lW "$bin" | grep >/dev/null GNU_RELRO || fail "$bin: no relro"
  readelf -sW --dyn-syms "$bin" | grep >/dev/null '__stack_chk_fail' || fail "$bin: no stack protector"
done
readelf -sW --dyn-syms "$tmp/root/usr/sbin/zriostatd" | grep >/dev/null '_chk@' || fail "zriostatd: not fortified"

# As root it says so on standard error; only the tags matter.
lintian --fail-on error,warning "$deb" >"$tmp/lintian.log" 2>/dev/null || fail "lintian: $(cat "$tmp/lintian.log")"
