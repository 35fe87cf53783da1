#!/usr/bin/env bash
# Mutation run: applies each small fault of scripts/mutations.txt to the code
# in turn, rebuilds only the test binary it names (ninja rebuilds what the
# change touches), runs that binary's tests with the given filter, and puts
# the file back. A mutant the tests fail on is killed; one they pass is a
# fault the suite does not catch. Prints a line per mutant and a table per
# area. Not part of the test command: it takes a while.
#   scripts/mutate.sh [build-dir] [mutations-file]     defaults: build, scripts/mutations.txt
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
list=${2:-scripts/mutations.txt}
[ -f "$dir/build.ninja" ] || cmake -S . -B "$dir" -G Ninja -DOMBRY_WERROR=ON >/dev/null
cmake --build "$dir" >/dev/null

exec python3 - "$dir" "$list" <<'PY'
import collections, os, shutil, signal, subprocess, sys, time

# A stop signal unwinds like an interrupt, so that the mutated file is put back.
signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))

build, listing = sys.argv[1], sys.argv[2]
mutants = []
for number, line in enumerate(open(listing), 1):
    if not line.strip() or line.startswith("#"):
        continue
    fields = line.rstrip("\n").split(" | ", 4)
    if len(fields) != 5 or " ==> " not in fields[4]:
        sys.exit(f"{listing}:{number}: needs area | file | binary | filter | text ==> replacement")
    text, replacement = fields[4].split(" ==> ", 1)
    area, path, binary, filter_ = (field.strip() for field in fields[:4])
    mutants.append((number, area, path, binary, filter_, text.replace("\\n", "\n"), replacement.replace("\\n", "\n")))

def find_binary(name):
    for root, _, files in os.walk(os.path.join(build, "tests")):
        if name in files:
            return os.path.join(root, name)
    sys.exit(f"no test binary {name} in {build}")

# As ctest runs them: the tests find the built tools and the sources by these.
environment = dict(os.environ, OMBRY_BUILD_DIR=os.path.abspath(build), OMBRY_SOURCE_DIR=os.getcwd())
# The session tests mostly wait on timers: four shards in parallel save wall
# time. Other binaries share files between their tests and run as one.
SHARDED = {"tests_stratum": 4}


def passes(binary, filter_):
    """Whether the binary's tests pass; a run past the limit is a hang and fails."""
    count = SHARDED.get(binary, 1)
    shards = [subprocess.Popen([find_binary(binary), f"--gtest_filter={filter_}", "--gtest_brief=1"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env=dict(environment, GTEST_TOTAL_SHARDS=str(count), GTEST_SHARD_INDEX=str(i)))
              for i in range(count)]
    deadline = time.time() + 150
    ok = True
    for shard in shards:
        try:
            ok = shard.wait(timeout=max(1, deadline - time.time())) == 0 and ok
        except subprocess.TimeoutExpired:
            ok = False
    for shard in shards:
        if shard.poll() is None:
            shard.kill()
            shard.wait()
    return ok


# The unmutated code must pass every run the list names, or a verdict means nothing.
for binary, filter_ in sorted({(m[3], m[4]) for m in mutants}):
    if not passes(binary, filter_):
        sys.exit(f"{binary} --gtest_filter={filter_} fails without a mutant; fix that first")

tally = collections.defaultdict(lambda: collections.Counter())
for number, area, path, binary, filter_, text, replacement in mutants:
    source = open(path).read()
    if text not in source:
        print(f"line {number}: {path}: text not found", flush=True)
        tally[area]["missing"] += 1
        continue
    backup = path + ".mutate-backup"
    shutil.copy2(path, backup)
    started = time.time()
    try:
        with open(path, "w") as out:
            out.write(source.replace(text, replacement, 1))
        built = subprocess.run(["cmake", "--build", build, "--target", binary],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
        verdict = "invalid" if not built else ("survived" if passes(binary, filter_) else "killed")
    finally:
        shutil.move(backup, path)
        os.utime(path)  # newer than the mutant's objects: the next build redoes them
    tally[area][verdict] += 1
    print(f"line {number:3}: {verdict:8} {area:10} {path}  ({time.time() - started:.0f} s)", flush=True)

subprocess.run(["cmake", "--build", build], stdout=subprocess.DEVNULL)
print()
print(f"{'area':12}{'killed':>8}{'survived':>10}{'invalid':>9}")
for area in sorted(tally):
    t = tally[area]
    print(f"{area:12}{t['killed']:>8}{t['survived']:>10}{t['invalid']:>9}")
total = sum(tally.values(), collections.Counter())
print(f"{'all':12}{total['killed']:>8}{total['survived']:>10}{total['invalid']:>9}")
PY
