#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Seeds the faults of faults.txt into the code one at a time, rebuilds, runs the tests, puts the
code back, and tells which test caught each fault: one that fails, times out or is killed.

    tests/faults/run-faults.py [--sanitize] [--real-host] [--only F01,CH02] [--record] [--port N]

Stages, each for what the ones before missed: unit (the plain build's unit tests), sanitize (the
same under ASan, UBSan and LSan), real-host (the test in a real OBS, and the only stage of the
faults marked real-host). A stage runs first the test that caught the fault last time, or the one
named after its file, then the rest up to the first failure. A test that fails once but passes
when run again is a flake, not a catch. Equivalent faults run only when --only names them.
Builds: build-faults and build-faults-asan."""

import argparse
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
TABLE, BUILD = HERE / "faults.txt", SOURCE / "build-faults"
# name: (build folder, configure options, build targets, tests it runs, tests it leaves out)
STAGES = {
    "unit": (BUILD, [], ["tessivane-unit-tests", "tessivane"], "", "^(real-host|tessivane-format)$"),
    "sanitize": (SOURCE / "build-faults-asan", ["-DTESSIVANE_SANITIZE=ON"],
                 ["tessivane-unit-tests"], "", ""),
    "real-host": (BUILD, [], ["all"], "^real-host$", ""),
}
# The test of a file that has none of its own name.
OWN_TEST = {"plugin-main": "module", "docks": "controller", "ingest": "health"}


def select(include, exclude):
    return ["-R", include] * bool(include) + ["-E", exclude] * bool(exclude)


def parse():
    blocks, faults = TABLE.read_text().split("\n\n"), []
    for index, block in enumerate(blocks):
        lines = block.strip("\n").split("\n")
        if not lines[0] or lines[0].startswith("#"):
            continue
        fid, path, *stage = lines[0].split()
        text = lambda prefix, sep="\n": sep.join(l[2:] for l in lines[1:] if l[:1] == prefix)
        faults.append(dict(id=fid, path=path, stage=(stage or [""])[0], block=index,
                           what=text("#", " "), before=text("-"), after=text("+"),
                           result=text("=") or "untried",
                           group="system" if path.startswith("src/") else "service"))
    return blocks, faults


def record(blocks, fault, result):
    old = blocks[fault["block"]]
    end = "\n" if old.endswith("\n") else ""
    blocks[fault["block"]] = re.sub(r"(?m)^=.*\n?", "", old).rstrip("\n") + f"\n= {result}{end}"
    TABLE.write_text("\n\n".join(blocks))


def run(argv, out, timeout):
    """The exit status, or None when the command outlived its time; a whole process group."""
    with subprocess.Popen(argv, cwd=SOURCE, stdout=out, stderr=subprocess.STDOUT,
                          start_new_session=True) as process:
        try:
            return process.wait(timeout=timeout)
        except BaseException as error:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            if isinstance(error, subprocess.TimeoutExpired):
                return None
            raise


def ctest(folder, selection, log):
    """The tests that failed, or ["timeout"] when ctest itself never ended."""
    output = BUILD / "ctest.out"
    with open(output, "w") as out:
        status = run(["ctest", "--test-dir", str(folder), "--stop-on-failure",
                      "--output-on-failure", *selection], out, 3600)
    text = output.read_text(errors="replace")
    log.write(text)
    failed = re.findall(r"^\s*\d+ - (\S+) \((?!Not Run|Disabled)", text, re.M)
    return ["timeout"] if status is None else failed or (["ctest"] if status else [])


def seed(fault, stages, tests, log):
    """(verdict, stage, test) with the fault in place."""
    for stage in stages:
        folder, _, targets, include, exclude = STAGES[stage]
        recorded = fault["result"].split()
        stem = Path(fault["path"]).stem.replace("tessivane-", "").replace("controller-", "")
        catcher = recorded[2] if recorded[:2] == ["caught", stage] else \
            "test-" + OWN_TEST.get(stem, stem)
        runs = [(targets, select(include, exclude))]
        if catcher in tests[stage] and len(tests[stage]) > 1:
            # A unit test's executable is a target of its own name, built alone when it runs alone.
            alone = [catcher] if catcher.startswith("test-") else targets
            rest = "|".join(filter(None, [exclude, f"^{catcher}$"]))
            runs = [(alone, select(f"^{catcher}$", "")), (targets, select(include, rest))]
        for build_targets, selection in runs:
            if run(["cmake", "--build", str(folder), "--target", *build_targets], log, 3600) != 0:
                return "no-build", stage, ""
            if failed := ctest(folder, selection, log):
                # One failure may be the load's: a catch is a test that fails once more.
                steady = failed[0] not in tests[stage] or ctest(folder, select(
                    f"^{failed[0]}$", ""), log)
                return "caught" if steady else "flaky", stage, failed[0]
    return "missed", "", ""


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    for flag in ("--sanitize", "--real-host", "--list", "--record"):
        parser.add_argument(flag, action="store_true")
    parser.add_argument("--only", help="comma-separated fault ids")
    parser.add_argument("--port", type=int, help="the builds' service origin's port (default: "
                        "the fourth of the checkout's ports, see scripts/port)")
    args = parser.parse_args()
    blocks, faults = parse()
    only = args.only.split(",") if args.only else []
    if unknown := set(only) - {f["id"] for f in faults}:
        parser.error(f"no such fault: {', '.join(sorted(unknown))}")
    faults = [f for f in faults if not only or f["id"] in only]
    if args.list:
        for f in faults:
            print(f"{f['id']:5} {f['path']:40} {f['stage']:9} {f['what']}\n      = {f['result']}")
        return 0
    if os.environ.get("TESSIVANE_IN_ROOT") != "1":
        script = str(SOURCE / "scripts/in-root")
        os.execv(script, [script, "python3", str(HERE / Path(__file__).name), *sys.argv[1:]])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    BUILD.mkdir(exist_ok=True)
    seeded = BUILD / "seeded"
    if seeded.exists():  # a run killed outright left its fault in the code
        path, _, text = seeded.read_bytes().partition(b"\n")
        (SOURCE / path.decode()).write_bytes(text)
        seeded.unlink()
        print(f"put {path.decode()} back as it was before the last run")

    port = args.port or int(subprocess.check_output([SOURCE / "scripts/port"])) + 3
    used = ["unit"] + ["sanitize"] * args.sanitize + ["real-host"] * args.real_host
    stages_of = lambda fault: ["real-host"] if fault["stage"] == "real-host" else used
    tests = {}
    with open(BUILD / "clean.log", "w") as log:
        for stage in [s for s in used if any(s in stages_of(f) for f in faults)]:
            folder, options, targets, include, exclude = STAGES[stage]
            if (run(["cmake", "-S", ".", "-B", str(folder), "-G", "Ninja", *options,
                     f"-DTESSIVANE_SERVICE_ORIGIN=https://127.0.0.1:{port}",
                     "-DTESSIVANE_BUILD_TESTS=ON"], log, 600) != 0
                    or run(["cmake", "--build", str(folder), "--target", *targets], log, 3600) != 0
                    or ctest(folder, select(include, exclude), log)):
                print(f"the tests fail without any fault: see {BUILD / 'clean.log'}")
                return 1
            tests[stage] = re.findall(r"Test +#\d+: (\S+)", (BUILD / "ctest.out").read_text())

    counts, started = {}, time.monotonic()
    for fault in faults:
        equivalent = fault["result"].startswith("equivalent")
        stages, start, file = stages_of(fault), time.monotonic(), SOURCE / fault["path"]
        original = file.read_bytes()
        text = original.decode()
        if equivalent and not only or not set(stages) <= set(used):
            verdict, stage, test = "skipped", "", ""
        elif text.count(fault["before"]) != 1:
            verdict, stage, test = "stale", "", ""
        else:
            try:
                seeded.write_bytes(fault["path"].encode() + b"\n" + original)
                file.write_text(text.replace(fault["before"], fault["after"]))
                with open(BUILD / f"{fault['id']}.log", "w") as log:
                    verdict, stage, test = seed(fault, stages, tests, log)
            finally:
                file.write_bytes(original)
                seeded.unlink()
        result = " ".join(filter(None, [verdict, stage, test]))
        if equivalent:
            verdict, stage = "equivalent", ""
        elif args.record and verdict != "skipped":
            record(blocks, fault, result)
        counts[fault["group"], verdict, stage] = counts.get((fault["group"], verdict, stage), 0) + 1
        print(f"{fault['id']:5} {result:40} {time.monotonic() - start:5.0f} s  {fault['what']}",
              flush=True)

    print(f"{len(faults)} faults in {time.monotonic() - started:.0f} s")
    for group in ("system", "service"):
        items = sorted(" ".join([*k[1:], str(n)]) for k, n in counts.items() if k[0] == group)
        print(f"{group}: {', '.join(items) or 'none'}".replace("  ", " "))
    return 0


if __name__ == "__main__":
    sys.exit(main())
