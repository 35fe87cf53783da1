#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing need.
# Idempotent: does nothing when everything is present.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config python3
  libfmt-dev libgtest-dev libbenchmark-dev
  libfuse3-dev fuse3
  libssl-dev openssl ca-certificates nlohmann-json3-dev
  libsystemd-dev dpkg-dev
  debhelper help2man lintian systemd bubblewrap
  clang libclang-rt-14-dev clang-format clang-tidy
  prometheus
  jq netcat-openbsd chromium
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
