#!/usr/bin/env bash
# Builds the .deb from a built tree and checks what an administrator gets: the
# service unit accepted by systemd and its sandbox rated at most 2.0 by
# `systemd-analyze security`, stripped programs with their debug information in
# the -dbgsym package, dependencies read from the programs, maintainer scripts.
# Usage: scripts/package_check.sh [BUILD_DIR]   (default: build, already built)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
unit=kes_energy.service
# systemd's scale for --threshold runs from 0 to 100 for the ratings 0.0 to 10.0.
max_exposure=20

fail() { echo "package check: $*" >&2; exit 1; }

rm -f "$build"/kes-energy*.deb "$build"/kes-energy*.ddeb
(cd "$build" && cpack >/dev/null)
deb=$(echo "$build"/kes-energy_*.deb)
dbgsym=$(echo "$build"/kes-energy-dbgsym_*.ddeb)
[ -f "$deb" ] || fail "no .deb in $build"
[ -f "$dbgsym" ] || fail "no -dbgsym package in $build"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$root/DEBIAN"

# The unit is checked inside the unpacked package, so that its ExecStart is the
# packaged program; the host's units supply the targets it is ordered against.
cp -an /lib/systemd/system/. "$root/lib/systemd/system/"
verify=$(systemd-analyze verify --root="$root" "$unit" 2>&1) || fail "systemd-analyze verify: $verify"
# A misspelt setting is only a warning, and it would silently weaken the sandbox.
[ -z "$verify" ] || fail "systemd-analyze verify: $verify"
if ! rating=$(systemd-analyze security --offline=true --root="$root" --threshold=$max_exposure "$unit" 2>&1); then
  echo "$rating"
  fail "the unit is rated above 2.0"
fi
echo "$rating" | tail -n 1

debug_files=$(dpkg-deb -c "$dbgsym")
for program in "$root"/usr/bin/*; do
  file -b "$program" | grep -q ', stripped' || fail "not stripped: ${program#"$root"}"
  id=$(file -b "$program" | sed -n 's/.*BuildID\[sha1\]=\([0-9a-f]*\).*/\1/p')
  [[ -n $id && $debug_files == *"/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug"* ]] ||
    fail "no debug information for ${program#"$root"} in $(basename "$dbgsym")"
done

depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libstdc++6 libtinyxml adduser; do
  [[ $depends == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
done
for script in postinst prerm postrm; do
  [ -x "$root/DEBIAN/$script" ] || fail "no $script"
  sh -n "$root/DEBIAN/$script" || fail "$script does not parse"
done

echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes, Section $(dpkg-deb -f "$deb" Section)"
echo "Depends: $depends"
