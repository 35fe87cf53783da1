#!/usr/bin/env bash
# Builds the Debian package with debhelper (debian/) into build-deb/ and
# checks it as a distribution would:
#   - lintian: no error and no warning (info and pedantic tags may stay);
#   - the unit as the package installs it: systemd-analyze verify says
#     nothing, and systemd-analyze security rates its exposure 2.5 at most.
# A rebuild reuses build-deb/build; `rm -rf build-deb` starts afresh.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
dpkg-checkbuilddeps

version=$(dpkg-parsechangelog -S Version)
rm -f build-deb/*.deb debian/debhelper-build-stamp
debian/rules binary
package=build-deb/ombry-miner_${version}_amd64.deb
depends=$(dpkg-deb -f "$package" Depends)
echo "package depends on: $depends"
for library in libc6 libssl3 libstdc++6 systemd; do
  case "$depends" in
    *"$library"*) ;;
    *) echo "the package does not declare $library" >&2; exit 1 ;;
  esac
done

echo "== lintian"
lintian --fail-on error,warning --display-info build-deb/*.deb

# The unit is checked in a root made of the package's files, the host's own
# units (for the targets it names) and the cp its ExecStartPre runs.
echo "== the unit as installed"
root=build-deb/root
rm -rf "$root"
dpkg-deb -x "$package" "$root"
unit_dir=$(dirname "$(cd "$root" && find . -path '*/systemd/system/ombry-miner.service')")
cp -rn "/${unit_dir#./}"/. "$root/${unit_dir#./}"/
mkdir -p "$root/bin"
cp "$(command -v cp)" "$root/bin/cp"
verify=$(MANPATH="$root/usr/share/man" systemd-analyze verify --root="$root" ombry-miner.service 2>&1) || {
  echo "$verify" >&2
  exit 1
}
if [ -n "$verify" ]; then
  echo "systemd-analyze verify is not silent about the unit:" >&2
  echo "$verify" >&2
  exit 1
fi
echo "systemd-analyze verify: no complaint"
# --threshold is in tenths: 25 is an exposure of 2.5.
security=$(systemd-analyze security --offline=true --threshold=25 --root="$root" ombry-miner.service 2>&1) || {
  echo "$security" >&2
  echo "the unit's exposure is above 2.5" >&2
  exit 1
}
echo "$security" | tail -n 1
