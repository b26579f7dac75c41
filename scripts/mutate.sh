#!/usr/bin/env bash
# Mutation check of the test suite, run by hand (not from CI).
#
# Applies the hand-written mutants of common/ (and of the tool, tools/) listed in scripts/mutants.txt one
# at a time, rebuilds the separate tree build/mutate incrementally, runs the
# whole suite until the first failing test, and puts the file back byte for
# byte.  A mutant is "killed" when a test fails, "timed out" when a test hangs
# past the limit (counted as killed), "survived" when every test passes.
#
#   nice -n 5 scripts/mutate.sh [--only ID[,ID...]] [--out FILE] [--list]
#                               [--jobs N] [--timeout SECONDS] [--reuse-baseline]
#                               [--matrix FILE]
#
# --only            run only these mutants
# --out FILE        also write the per-mutant lines and the score to FILE
# --list            print the mutants (id, file, description) and stop
# --jobs N          tests run side by side (default 2)
# --timeout S       limit per test in seconds (default 120)
# --reuse-baseline  take the test order from the last run's timings instead of
#                   running the unmodified suite first
# --matrix FILE     run every test against every mutant (no stop at the first
#                   failure) and write which tests kill which mutant to FILE
#                   as JSON: the tests that alone kill a mutant are the ones a
#                   cut must keep
#
# The unmodified suite runs first: it must pass, and its timings order the
# tests cheapest first so that a kill comes quickly.  Build and failure logs
# go to build/mutate/mutate-logs/.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=build/mutate
BACKUP=$BUILD/mutate-backup

# Puts back any file a mutant left behind: after Ctrl-C, an error, or a run
# that was killed outright (the backup then survives until the next start).
restore_backups() {
  [ -d "$ROOT/$BACKUP" ] || return 0
  local f
  for f in "$ROOT/$BACKUP"/*; do
    [ -e "$f" ] || continue
    # "tools%x.cc" is tools/x.cc; a plain name is under common/.
    local name
    name=$(basename "$f")
    case $name in *%*) name=${name/\%//} ;; *) name=common/$name ;; esac
    cp -- "$f" "$ROOT/$name"
    rm -f -- "$f"
    echo "mutate.sh: restored $name" >&2
  done
}
trap restore_backups EXIT
trap 'restore_backups; exit 130' INT
trap 'restore_backups; exit 143' TERM HUP
restore_backups

# The end check compares common/ with the commit, and a mutant must never land
# on top of someone's unsaved edits.
if [[ " $* " != *" --list "* ]] && [ -n "$(git status --porcelain -- common/ tools/)" ]; then
  echo "mutate.sh: common/ or tools/ has uncommitted changes; commit or stash them first" >&2
  exit 1
fi

mkdir -p "$BUILD"
if [ ! -f "$BUILD/build.ninja" ]; then
  # Like the default preset, without -Werror: a mutant may well warn.
  cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ -DSBACC_WERROR=OFF >/dev/null
fi

python3 - "$@" <<'PYEOF'
import argparse, json, os, signal, subprocess, sys, threading, time

ROOT = os.getcwd()
BUILD = os.path.join(ROOT, "build", "mutate")
BACKUP = os.path.join(BUILD, "mutate-backup")
LOGS = os.path.join(BUILD, "mutate-logs")
TIMES = os.path.join(BUILD, "mutate-times.json")
LIST = os.path.join(ROOT, "scripts", "mutants.txt")

ap = argparse.ArgumentParser(prog="mutate.sh")
ap.add_argument("--only", default="")
ap.add_argument("--out", default="")
ap.add_argument("--list", action="store_true")
ap.add_argument("--jobs", type=int, default=2)
ap.add_argument("--timeout", type=int, default=120)
ap.add_argument("--reuse-baseline", action="store_true")
ap.add_argument("--matrix", default="")
args = ap.parse_args()

# ---- mutant list -----------------------------------------------------------------

def parse_list(path):
    entries, cur, last = [], None, None
    with open(path, encoding="utf-8") as f:
        for lineno, raw in enumerate(f, 1):
            line = raw.rstrip("\n")
            if line.strip() == "":
                if cur is not None:
                    entries.append(cur)
                cur, last = None, None
                continue
            if cur is None and line.startswith("#"):
                continue
            key, sep, val = line.partition(":")
            if not sep:
                raise SystemExit(f"{path}:{lineno}: no key in line")
            val = val[1:] if val.startswith(" ") else val
            if cur is None:
                cur = {"line": lineno}
            if key in ("from+", "to+"):
                base = key[:-1]
                if base not in cur or last != base:
                    raise SystemExit(f"{path}:{lineno}: {key} without a {base} line just above")
                cur[base] += "\n" + val
            elif key in ("id", "file", "desc", "from", "to"):
                if key in cur:
                    raise SystemExit(f"{path}:{lineno}: {key} given twice")
                cur[key] = val
                last = key
            else:
                raise SystemExit(f"{path}:{lineno}: unknown key {key}")
    if cur is not None:
        entries.append(cur)
    seen = set()
    for e in entries:
        for k in ("id", "file", "desc", "from", "to"):
            if k not in e:
                raise SystemExit(f"{path}:{e['line']}: entry without {k}")
        if e["id"] in seen:
            raise SystemExit(f"{path}:{e['line']}: id {e['id']} given twice")
        seen.add(e["id"])
    return entries

mutants = parse_list(LIST)
if args.only:
    wanted = [x for x in args.only.split(",") if x]
    known = {m["id"] for m in mutants}
    unknown = [x for x in wanted if x not in known]
    if unknown:
        raise SystemExit("unknown mutant id(s): " + ",".join(unknown))
    mutants = [m for m in mutants if m["id"] in wanted]
# Mutants of one file together: each one then costs a single recompile.
mutants.sort(key=lambda m: m["file"])

os.makedirs(LOGS, exist_ok=True)
os.makedirs(BACKUP, exist_ok=True)
out = open(args.out, "w", encoding="utf-8") if args.out else None

def emit(text):
    print(text, flush=True)
    if out:
        out.write(text + "\n")
        out.flush()

# ---- running tests ------------------------------------------------------------------

running = {}          # pid -> Popen, for the signal handler
running_lock = threading.Lock()

aborting = threading.Event()

def kill_running():
    with running_lock:
        procs = list(running.values())
    for p in procs:
        try:
            os.killpg(p.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

def build(logname):
    with open(os.path.join(LOGS, logname), "w") as log:
        r = subprocess.run(["cmake", "--build", BUILD], stdout=log, stderr=subprocess.STDOUT)
    return r.returncode == 0

def list_tests():
    r = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"],
                       capture_output=True, text=True, check=True)
    tests = []
    for t in json.loads(r.stdout)["tests"]:
        props = {p["name"]: p["value"] for p in t.get("properties", [])}
        env = dict(os.environ)
        for kv in props.get("ENVIRONMENT", []):
            k, _, v = kv.partition("=")
            env[k] = v
        tests.append({"name": t["name"], "cmd": t["command"], "env": env,
                      "cwd": props.get("WORKING_DIRECTORY", BUILD)})
    return tests

def run_one(test, limit, logpath):
    """('pass'|'fail'|'timeout', seconds)"""
    start = time.monotonic()
    with open(logpath, "w") as log:
        p = subprocess.Popen(test["cmd"], cwd=test["cwd"], env=test["env"], stdout=log,
                             stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, start_new_session=True)
        with running_lock:
            running[p.pid] = p
        try:
            rc = p.wait(timeout=limit)
            verdict = "pass" if rc == 0 else "fail"
        except subprocess.TimeoutExpired:
            os.killpg(p.pid, signal.SIGKILL)
            p.wait()
            verdict = "timeout"
        finally:
            with running_lock:
                running.pop(p.pid, None)
    return verdict, time.monotonic() - start

def run_suite(tests, tag, stop_on_failure):
    """Runs tests in order on args.jobs workers.  Returns (first failure or
    None, {name: seconds}); the failure is (name, 'fail'|'timeout')."""
    lock = threading.Lock()
    state = {"next": 0, "failure": None, "all": []}
    times = {}
    def worker():
        while True:
            with lock:
                if aborting.is_set() or state["next"] >= len(tests) or (stop_on_failure and state["failure"]):
                    return
                t = tests[state["next"]]
                state["next"] += 1
            log = os.path.join(LOGS, f"{tag}.{t['name'].replace('/', '_')}.log")
            verdict, secs = run_one(t, args.timeout, log)
            with lock:
                times[t["name"]] = secs
                if verdict == "pass":
                    os.unlink(log)
                    continue
                state["all"].append(t["name"].split("  #")[0])
                if state["failure"] is None:
                    state["failure"] = (t["name"], verdict)
                    os.replace(log, os.path.join(LOGS, f"{tag}.kill.log"))
                else:
                    os.unlink(log)
            if stop_on_failure:
                kill_running()  # the others' verdicts no longer matter
                return
    threads = [threading.Thread(target=worker, daemon=True) for _ in range(max(1, args.jobs))]
    for th in threads:
        th.start()
    for th in threads:
        th.join()
    run_suite.failures = sorted(state["all"])
    return state["failure"], times

# ---- applying a mutant ------------------------------------------------------------

def on_signal(signum, frame):
    aborting.set()
    kill_running()
    restore_current()
    sys.exit(128 + signum)

current = {"path": None, "orig": None}

def restore_current():
    if current["path"] is None:
        return
    with open(current["path"], "wb") as f:
        f.write(current["orig"])
    os.unlink(os.path.join(BACKUP, backup_name(current["path"])))
    current["path"] = None

signal.signal(signal.SIGINT, on_signal)
signal.signal(signal.SIGTERM, on_signal)
signal.signal(signal.SIGHUP, on_signal)

# A mutant of common/ names its file alone, one of the tool "tools/NAME".
def backup_name(path):
    rel = os.path.relpath(path, ROOT)
    return rel.replace("tools/", "tools%", 1) if rel.startswith("tools/") else os.path.basename(rel)

def check_entry(m):
    in_tools = m["file"].startswith("tools/")
    name = m["file"][len("tools/"):] if in_tools else m["file"]
    path = os.path.join(ROOT, "tools" if in_tools else "common", name)
    if os.path.dirname(os.path.normpath(name)) != "" or not os.path.isfile(path):
        return None, "no such file under common/ or tools/"
    with open(path, "rb") as f:
        orig = f.read()
    n = orig.count(m["from"].encode())
    if n != 1:
        return None, f"original snippet occurs {n} times"
    if m["from"] == m["to"]:
        return None, "replacement equals the original"
    return (path, orig), None

def apply(path, orig, m):
    with open(os.path.join(BACKUP, backup_name(path)), "wb") as f:
        f.write(orig)
    current["path"], current["orig"] = path, orig
    with open(path, "wb") as f:
        f.write(orig.replace(m["from"].encode(), m["to"].encode(), 1))

# ---- main ---------------------------------------------------------------------------

if args.list:
    for m in mutants:
        problem = check_entry(m)[1]
        print(f"{m['id']:<6} {m['file']:<22} {m['desc']}" + (f"  [bad entry: {problem}]" if problem else ""))
    sys.exit(0)

t0 = time.monotonic()
head = subprocess.run(["git", "rev-parse", "--short", "HEAD"], capture_output=True, text=True).stdout.strip()
# Entries are checked before anything is built, so a bad list costs nothing.
checked = [(m, *check_entry(m)) for m in mutants]

if not build("baseline.build.log"):
    raise SystemExit(f"the unmodified tree does not build, see {LOGS}/baseline.build.log")
tests = list_tests()
if args.reuse_baseline and os.path.exists(TIMES):
    with open(TIMES) as f:
        times = json.load(f)
    baseline_note = "baseline timings reused"
else:
    failure, times = run_suite(tests, "baseline", stop_on_failure=False)
    if failure:
        raise SystemExit(f"the unmodified suite fails ({failure[0]}: {failure[1]}), "
                         f"see {LOGS}/baseline.kill.log")
    with open(TIMES, "w") as f:
        json.dump(times, f, indent=0, sort_keys=True)
    baseline_note = f"unmodified suite passed in {time.monotonic() - t0:.0f}s with build"
# Cheapest first; a test not timed yet goes last.
tests.sort(key=lambda t: (times.get(t["name"], 1e9), t["name"]))

emit(f"# mutation check at {head}, {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}: "
     f"{len(checked)} mutants, {len(tests)} tests, jobs {args.jobs}, "
     f"limit {args.timeout}s per test ({baseline_note})")
emit(f"# {'id':<6} {'result':<30} {'killing test':<62} {'time':>5}")

killed = built = 0
matrix = {}
survivors, unbuilt, bad = [], [], []
layers = {}  # layer -> [killed, built, total]
def layer_of(m):
    d = m["desc"]
    return d[1:d.index("]")] if d.startswith("[") and "]" in d else "?"
for m, target, problem in checked:
    start = time.monotonic()
    tally = layers.setdefault(layer_of(m), [0, 0, 0])
    tally[2] += 1
    if problem:
        bad.append(m["id"])
        emit(f"{m['id']:<8} {'bad entry':<30} {problem:<62} {0:>4}s")
        continue
    path, orig = target
    apply(path, orig, m)
    try:
        ok = build(f"{m['id']}.build.log")
        failure = run_suite(tests, m["id"], stop_on_failure=not args.matrix)[0] if ok else None
        if ok and args.matrix:
            matrix[m["id"]] = run_suite.failures
    finally:
        restore_current()
    secs = time.monotonic() - start
    if not ok:
        unbuilt.append(m["id"])
        emit(f"{m['id']:<8} {'did not build':<30} {'-':<62} {secs:>4.0f}s")
        continue
    built += 1
    tally[1] += 1
    if failure is None:
        survivors.append(m["id"])
        emit(f"{m['id']:<8} {'survived':<30} {'-':<62} {secs:>4.0f}s")
        continue
    killed += 1
    tally[0] += 1
    result = "killed" if failure[1] == "fail" else "timed out (counted as killed)"
    # ctest appends "  # GetParam() = ..." to parameterised names; the gtest name is enough.
    emit(f"{m['id']:<8} {result:<30} {failure[0].split('  #')[0]:<62} {secs:>4.0f}s")

if args.matrix:
    with open(args.matrix, "w") as f:
        json.dump(matrix, f, indent=1, sort_keys=True)
# Leave the tree built from the unmodified sources.
build("final.build.log")
pct = 100.0 * killed / built if built else 0.0
for name, (k, b, n) in sorted(layers.items()):
    emit(f"# layer {name + ':':<22} {k} killed of {b} built ({n} listed)")
emit(f"mutation score: {killed} killed of {built} built ({pct:.1f}%)")
emit("survivors: " + (" ".join(survivors) if survivors else "none"))
if unbuilt:
    emit("did not build: " + " ".join(unbuilt))
if bad:
    emit("bad entries: " + " ".join(bad))
emit(f"total run time: {time.monotonic() - t0:.0f}s")
PYEOF

# The mutants touched only common/ and tools/; they must be exactly as committed again.
if ! git diff --quiet -- common/ tools/; then
  echo "mutate.sh: common/ or tools/ differs from the commit after the run" >&2
  git status --short -- common/ tools/ >&2
  exit 1
fi
