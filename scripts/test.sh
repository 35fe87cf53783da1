#!/usr/bin/env bash
# Builds and runs all tests: a normal build and its tests, the static checks
# (layering, clang-format, clang-tidy), then the same tests under
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

# The house habits: the layering of the folders, the code's format and the
# static checks of .clang-tidy, on every file of the normal build.
static_checks() {
  echo "== layering, format, clang-tidy"
  scripts/check-layers.py
  git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
  run-clang-tidy-14 -p build -j2 -quiet "$PWD/(src|sim|tools|bench|tests)/" >build/clang-tidy.log 2>&1 || {
    sed 's/\x1b\[[0-9;]*m//g' build/clang-tidy.log | grep -A2 -E '(error|warning):' >&2
    echo "clang-tidy found the above (whole output in build/clang-tidy.log)" >&2
    exit 1
  }
}

run_suite build
static_checks
run_suite build-asan -DSANITIZE=address -DOMBRY_BUILD_BENCH=OFF
if [ "$tsan" = 1 ]; then
  run_suite build-tsan -DSANITIZE=thread -DOMBRY_BUILD_BENCH=OFF
fi

# As a packager builds it: the Debian package (Release, no warnings-as-errors,
# no tests), checked by lintian and its unit by systemd-analyze.
echo "== build-deb"
scripts/package.sh

scripts/fuzz.sh
