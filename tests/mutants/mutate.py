#!/usr/bin/env python3
"""Applies the hand-written mutants of tests/mutants/mutants.txt one at a time to a scratch
copy of the sources, builds it and runs the tests that cover the mutated file. A mutant is
killed when a test fails (or times out), survives when they all pass.

    mutate.py TOP WORK [--only N,M,...] [--list] [--matrix FILE]

TOP is the source tree, WORK a folder of its own (scratch copy and build). The scratch copy
is refreshed from TOP's tracked files on every run; the build in it is kept, so ccache and
ninja make each mutant an incremental build. A mutant whose text no longer occurs exactly
once or whose tests match no test, or whose build fails, is reported as stale or unbuilt:
the list needs mending.

--matrix runs every covering test of each mutant to its end and writes, per mutant, the
tests that failed: a test that is the only one to kill some mutant must stay, one whose
every kill another test shares can be folded away.
"""
import os
import shutil
import signal
import subprocess
import sys
import time


def load(path):
    """Mutants are blocks of four lines, 'key: value', separated by blank lines:
    file, from, to, tests (a ctest regular expression), and a 'why' line."""
    mutants, cur = [], {}
    with open(path, encoding="utf-8") as f:
        for raw in f.read().split("\n") + [""]:
            line = raw.rstrip("\n")
            if line.startswith("#"):
                continue
            if not line.strip():
                if cur:
                    missing = {"file", "from", "to", "tests", "why"} - cur.keys()
                    if missing:
                        sys.exit(f"mutant {len(mutants) + 1}: missing {sorted(missing)}")
                    mutants.append(cur)
                    cur = {}
                continue
            key, _, value = line.partition(": ")
            if key not in ("file", "from", "to", "tests", "why"):
                sys.exit(f"mutants.txt: unknown key in line: {line}")
            # \n in from/to stands for a line break, so a mutant can span lines.
            cur[key] = value.replace("\\n", "\n") if key in ("from", "to") else value
    return mutants


def run(cmd, cwd, timeout, log):
    try:
        p = subprocess.run(cmd, cwd=cwd, stdout=log, stderr=subprocess.STDOUT, timeout=timeout)
        return p.returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def run_tests(cmd, cwd, timeout, log, failing=None):
    """Runs ctest and stops it at the first failing test: one is enough to kill a mutant,
    and the others may be waiting out their time-outs. 'killed' when a test failed,
    'survived' when all passed, 'stale' when the regular expression names no test.
    Given a list as failing, runs every test and fills the list with the failing ones."""
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         start_new_session=True)
    deadline = time.monotonic() + timeout
    failed = False
    none = False
    for line in p.stdout:
        log.write(line)
        none = none or "No tests were found" in line
        if failing is not None and "***" in line:
            failing.append(line.split(": ", 1)[1].split(" ")[0])
        if ("***" in line and failing is None) or time.monotonic() > deadline:
            failed = True
            break
    if failed:
        os.killpg(p.pid, signal.SIGKILL)
    p.wait()
    if none:
        return "stale"
    return "killed" if failed or p.returncode != 0 else "survived"


def main():
    # Stopped from outside, the mutated file is still restored (the finally below).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    args = sys.argv[1:]
    if len(args) < 2:
        sys.exit(__doc__)
    top, work = os.path.abspath(args[0]), os.path.abspath(args[1])
    only = None
    if "--only" in args:
        only = {int(x) for x in args[args.index("--only") + 1].split(",")}
    mutants = load(os.path.join(top, "tests/mutants/mutants.txt"))
    matrix = None
    if "--matrix" in args:
        matrix = open(os.path.abspath(args[args.index("--matrix") + 1]), "w", encoding="utf-8")
    if "--list" in args:
        for i, m in enumerate(mutants, 1):
            print(f"{i:3}  {m['file']}: {m['why']}")
        return 0

    scratch, build = os.path.join(work, "src"), os.path.join(work, "build")
    os.makedirs(work, exist_ok=True)
    files = subprocess.run(["git", "ls-files", "-z"], cwd=top, check=True, capture_output=True).stdout
    for rel in filter(None, files.decode().split("\0")):
        src, dst = os.path.join(top, rel), os.path.join(scratch, rel)
        if not os.path.isfile(src):
            continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        # Only changed files are copied, so that the kept build stays incremental; a copy
        # gets a new time, so that the build sees the change.
        if not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read():
            shutil.copyfile(src, dst)
            shutil.copymode(src, dst)
    logdir = os.path.join(work, "logs")
    os.makedirs(logdir, exist_ok=True)
    env_cmake = ["cmake", "-S", scratch, "-B", build, "-G", "Ninja", "-DZT_BUILD_BENCH=OFF"]
    with open(os.path.join(logdir, "base.log"), "w") as log:
        if run(env_cmake, scratch, 600, log) != 0 or run(["cmake", "--build", build, "-j2"], scratch, 3600, log) != 0:
            sys.exit(f"the unmutated sources do not build: {logdir}/base.log")

    # The tests must pass unmutated, or a failure would be counted as a kill.
    chosen = [m for i, m in enumerate(mutants, 1) if not only or i in only]
    union = "|".join(sorted({m["tests"] for m in chosen}))
    with open(os.path.join(logdir, "base-tests.log"), "w") as log:
        if run(["ctest", "--test-dir", build, "-j4", "--timeout", "180", "-R", union], scratch, 3600, log) != 0:
            sys.exit(f"the tests fail without a mutant: {logdir}/base-tests.log")

    results = []
    for i, m in enumerate(mutants, 1):
        if only and i not in only:
            continue
        path = os.path.join(scratch, m["file"])
        original = open(path, encoding="utf-8").read()
        if original.count(m["from"]) != 1:
            results.append((i, m, "stale", 0.0))
            print(f"{i:3}  stale     {m['file']}: text found {original.count(m['from'])} times", flush=True)
            continue
        start = time.monotonic()
        try:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original.replace(m["from"], m["to"]))
            with open(os.path.join(logdir, f"mutant-{i:03}.log"), "w") as log:
                if run(["cmake", "--build", build, "-j2"], scratch, 1800, log) != 0:
                    outcome = "unbuilt"
                else:
                    failing = [] if matrix else None
                    outcome = run_tests(["ctest", "--test-dir", build, "-j4", "--timeout", "180",
                                         "--no-tests=error", "-R", m["tests"]], scratch, 1800, log, failing)
                    if matrix:
                        matrix.write(f"{i}\t{outcome}\t{' '.join(sorted(failing))}\n")
                        matrix.flush()
        finally:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original)
        seconds = time.monotonic() - start
        results.append((i, m, outcome, seconds))
        print(f"{i:3}  {outcome:9} {seconds:6.0f} s  {m['file']}: {m['why']}", flush=True)

    # The restored sources are built again, so the next run starts from the unmutated state.
    with open(os.path.join(logdir, "base.log"), "a") as log:
        run(["cmake", "--build", build, "-j2"], scratch, 3600, log)
    killed = sum(1 for r in results if r[2] == "killed")
    bad = [r for r in results if r[2] in ("stale", "unbuilt")]
    print(f"\nkilled {killed} of {len(results)} mutants"
          + (f"; {len(bad)} stale or unbuilt (mend tests/mutants/mutants.txt)" if bad else ""))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
