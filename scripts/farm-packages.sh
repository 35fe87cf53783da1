#!/usr/bin/env bash
# Builds the farm OS packages of the miner into build-farm/ (or --out DIR):
#   hiveos/ombry-miner-<version>.tar.gz  HiveOS custom miner (dist/hiveos)
#   mmpos/ombry-miner-<version>.tar.gz   mmpOS external miner (dist/mmpos)
# Each holds one folder, ombry-miner/, with the scripts, the miner and the
# bitstreams/ folders it reads its flash images from. The version is the
# miner's own, with no dash (a farm OS splits the name at the last one).
# Without --binary FILE the miner is a portable Release build (everything but
# the C library linked in) made in build-farm/build.
set -euo pipefail
cd "$(dirname "$0")/.."

out=build-farm
binary=""
while [ $# -gt 0 ]; do
  case $1 in
    --binary) binary=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    *) echo "usage: $0 [--binary FILE] [--out DIR]" >&2; exit 2 ;;
  esac
done

if [ -z "$binary" ]; then
  scripts/install-deps.sh
  cmake -S . -B "$out/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DOMBRY_PORTABLE=ON \
    -DOMBRY_BUILD_TESTS=OFF -DOMBRY_BUILD_BENCH=OFF
  cmake --build "$out/build" --target ombry-miner
  binary=$out/build/bin/ombry-miner
fi

version=$("$binary" --version | head -n 1)
version=${version#ombry-miner }
version=${version//-/.}
if ! [[ $version =~ ^[0-9A-Za-z.+~_]+$ ]]; then
  echo "cannot take a package version from '$version'" >&2
  exit 1
fi

for os in hiveos mmpos; do
  stage=$out/$os/stage
  rm -rf "$stage" "$out/$os"/ombry-miner-*.tar.gz
  mkdir -p "$stage/ombry-miner"
  install -m 0755 "$binary" "$stage/ombry-miner/ombry-miner"
  strip "$stage/ombry-miner/ombry-miner" 2> /dev/null || true
  cp -r bitstreams "$stage/ombry-miner/"
  find "$stage/ombry-miner/bitstreams" -name .gitkeep -delete
  for file in dist/"$os"/*; do
    mode=0644
    [[ $file == *.sh ]] && mode=0755
    install -m "$mode" "$file" "$stage/ombry-miner/"
  done
  sed -i "s/@VERSION@/$version/" "$stage"/ombry-miner/*.conf
  tar -C "$stage" --owner=0 --group=0 --numeric-owner --sort=name -czf "$out/$os/ombry-miner-$version.tar.gz" ombry-miner
  rm -rf "$stage"
  echo "$out/$os/ombry-miner-$version.tar.gz"
done
