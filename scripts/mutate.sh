#!/usr/bin/env bash
# Mutation run: applies each small fault of scripts/mutations.txt to the code
# in turn, rebuilds only the test binary it names (ninja rebuilds what the
# change touches), runs that binary's tests with the given filter, and puts
# the file back. A mutant the tests fail on is killed; one they pass is a
# fault the suite does not catch; one whose tests neither fail nor end within
# the time limit (four times the unmutated run, at least 60 s) timed out,
# counted apart: a hang is caught, but by no check. Prints a line per mutant
# and a table per area. Not part of the test command: it takes a while.
#
# Stopped midway (Ctrl+C, SIGTERM, SIGHUP) it ends the build or tests under
# way, puts the mutated file back and makes its objects stale. After a SIGKILL
# or a power loss, the next run (or `scripts/mutate.sh --restore`) puts back
# what a "<file>.mutate-backup" beside a source holds before anything else.
#   scripts/mutate.sh [build-dir] [mutations-file]     defaults: build, scripts/mutations.txt
#   scripts/mutate.sh --restore
set -euo pipefail
cd "$(dirname "$0")/.."

exec python3 - "$@" <<'PY'
import collections, os, signal, subprocess, sys, time

STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
BACKUP = ".mutate-backup"


class Stopped(Exception):
    pass


def on_stop(number, _frame):
    raise Stopped(signal.Signals(number).name)


for stop in STOP_SIGNALS:
    signal.signal(stop, on_stop)


def restore_leftovers():
    """Puts back every source a run that could not clean up left mutated."""
    for root in ("src", "sim", "tools", "bench"):
        for folder, _, files in os.walk(root):
            for name in files:
                if name.endswith(BACKUP):
                    backup = os.path.join(folder, name)
                    source = backup[: -len(BACKUP)]
                    os.replace(backup, source)
                    os.utime(source)
                    print(f"restored {source} from an interrupted run", flush=True)


restore_leftovers()
if sys.argv[1:] == ["--restore"]:
    sys.exit(0)
build = sys.argv[1] if len(sys.argv) > 1 else "build"
listing = sys.argv[2] if len(sys.argv) > 2 else "scripts/mutations.txt"

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

# Children run in sessions of their own, so that a stop reaches the compilers
# under ninja and the tests' own children too, and none of them writes a
# mutated object after the source is back.
running = []


def start(argv, **kwargs):
    child = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                             **kwargs)
    running.append(child)
    return child


def end(child):
    if child.poll() is None:
        try:
            os.killpg(child.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    child.wait()
    running.remove(child)


def run(argv):
    child = start(argv)
    try:
        return child.wait()
    finally:
        end(child)


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


def outcome(binary, filter_, limit):
    """'passed', 'failed', or 'timed out' when no shard failed but one ran past the limit."""
    count = SHARDED.get(binary, 1)
    shards = [start([find_binary(binary), f"--gtest_filter={filter_}", "--gtest_brief=1"],
                    env=dict(environment, GTEST_TOTAL_SHARDS=str(count), GTEST_SHARD_INDEX=str(i)))
              for i in range(count)]
    deadline = time.time() + limit
    failed = hung = False
    try:
        for shard in shards:
            try:
                failed = shard.wait(timeout=max(1, deadline - time.time())) != 0 or failed
            except subprocess.TimeoutExpired:
                hung = True
    finally:
        for shard in shards:
            end(shard)
    return "failed" if failed else "timed out" if hung else "passed"


def mutate(path, source, mutated):
    """Writes the mutant, with the original beside it until it is back."""
    with open(path + BACKUP, "w") as out:
        out.write(source)
    with open(path, "w") as out:
        out.write(mutated)


def put_back(path, source):
    # Nothing may stop this halfway: further stop signals wait until it is done.
    signal.pthread_sigmask(signal.SIG_BLOCK, STOP_SIGNALS)
    try:
        for child in list(running):
            end(child)
        if os.path.exists(path + BACKUP):
            with open(path, "w") as out:
                out.write(source)
            os.remove(path + BACKUP)
        os.utime(path)  # newer than the mutant's objects: the next build redoes them
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, STOP_SIGNALS)


tally = collections.defaultdict(collections.Counter)
try:
    if not os.path.exists(os.path.join(build, "build.ninja")):
        if run(["cmake", "-S", ".", "-B", build, "-G", "Ninja", "-DOMBRY_WERROR=ON"]) != 0:
            sys.exit("cmake failed")
    if run(["cmake", "--build", build]) != 0:
        sys.exit(f"the unmutated code does not build in {build}")

    # The unmutated code must pass every run the list names, or a verdict
    # means nothing; its time sets the limit of each run.
    limits = {}
    for binary, filter_ in sorted({(m[3], m[4]) for m in mutants}):
        started = time.time()
        if outcome(binary, filter_, 900) != "passed":
            sys.exit(f"{binary} --gtest_filter={filter_} fails without a mutant; fix that first")
        limits[(binary, filter_)] = max(60, 4 * (time.time() - started))

    for number, area, path, binary, filter_, text, replacement in mutants:
        source = open(path).read()
        if text not in source:
            print(f"line {number}: {path}: text not found", flush=True)
            tally[area]["missing"] += 1
            continue
        started = time.time()
        try:
            mutate(path, source, source.replace(text, replacement, 1))
            built = run(["cmake", "--build", build, "--target", binary]) == 0
            verdict = outcome(binary, filter_, limits[(binary, filter_)]) if built else "invalid"
        finally:
            put_back(path, source)
        verdict = {"failed": "killed", "passed": "survived"}.get(verdict, verdict)
        tally[area][verdict] += 1
        print(f"line {number:3}: {verdict:9} {area:10} {path}  ({time.time() - started:.0f} s)", flush=True)
    run(["cmake", "--build", build])
except Stopped as stop:
    # Stopped before the file was back (a signal right at the start of
    # put_back): the backup beside it still holds the original.
    signal.pthread_sigmask(signal.SIG_BLOCK, STOP_SIGNALS)
    for child in list(running):
        end(child)
    restore_leftovers()
    print(f"\nstopped by {stop}; every source is as it was", flush=True)
    sys.exit(130)

columns = ("killed", "survived", "timed out", "invalid", "missing")
print()
print(f"{'area':12}" + "".join(f"{c:>11}" for c in columns))
for area in sorted(tally):
    print(f"{area:12}" + "".join(f"{tally[area][c]:>11}" for c in columns))
total = sum(tally.values(), collections.Counter())
print(f"{'all':12}" + "".join(f"{total[c]:>11}" for c in columns))
PY
