#!/usr/bin/env bash
# Builds and runs all tests: a normal build, then the same tests under
# AddressSanitizer + UndefinedBehaviorSanitizer, then the Debian package as a
# packager builds it, checked by lintian and systemd-analyze, then the fuzz
# targets. Warnings are errors in the test builds.
#   scripts/test.sh            normal and ASan/UBSan
#   scripts/test.sh --tsan     adds a ThreadSanitizer pass
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

tsan=0
for arg in "$@"; do
  case "$arg" in
    --tsan) tsan=1 ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

run_suite() {
  local dir=$1
  shift
  echo "== $dir"
  cmake -S . -B "$dir" -G Ninja -DOMBRY_WERROR=ON "$@" >/dev/null
  cmake --build "$dir"
  ctest --test-dir "$dir" --output-on-failure -j2 --timeout 600
}

run_suite build
run_suite build-asan -DSANITIZE=address -DOMBRY_BUILD_BENCH=OFF
if [ "$tsan" = 1 ]; then
  run_suite build-tsan -DSANITIZE=thread -DOMBRY_BUILD_BENCH=OFF
fi

# As a packager builds it: the Debian package (Release, no warnings-as-errors,
# no tests), checked by lintian and its unit by systemd-analyze.
echo "== build-deb"
scripts/package.sh

scripts/fuzz.sh
