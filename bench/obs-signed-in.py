#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""What the plug-in costs a real OBS Studio while signed in and idle with a busy chat (the
development service's --busy-chat: 500 messages, a chat poll every 10 s, health every 2 s),
measured beside OBS alone: both run at once on one virtual screen, each with a home of its own,
the plug-in only in one. After 25 s of settling, over 60 s, it prints each one's UI-thread CPU
(the main thread's utime+stime, and its run time from schedstat), resident memory, and longest
UI-thread stall (the most the stall probe's timer fired late), also within a second of a chat
poll, where OBS alone shows what the machine's own load makes of the same moments. Each
process's /proc smaps at the end stays in the run's folder, to see where memory goes. The
probe's own ticks cost UI-thread CPU too: --no-probe leaves it out, for the CPU alone. Run it
inside the root, from a build with the tests:

    scripts/in-root bash -c 'cmake --build build --target tessivane tessivane-dev-service \\
        tessivane-stall-probe && python3 bench/obs-signed-in.py --runs 3 [--no-probe]'
"""

import argparse
import json
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(SOURCE / "scripts"))
from obs_session import Session  # noqa: E402

TICK = os.sysconf("SC_CLK_TCK")
CHAT_POLL = "GET /api/chat/messages"
RELEASES = "GET /api/plugin/releases/latest"


def read(path):
    return path.read_text(errors="replace") if path.exists() else ""


def make_home(home, build, module, probe):
    """Past OBS's first run, a small profile with the preview off (so that software rendering
    weighs little), and the plug-in and the stall probe if asked."""
    config = home / ".config/obs-studio"
    (config / "basic/profiles/Bench").mkdir(parents=True)
    (config / "basic/scenes").mkdir(parents=True)
    (config / "global.ini").write_text(
        "[General]\nFirstRun=true\n[Basic]\nProfile=Bench\nProfileDir=Bench\n"
        "SceneCollection=Bench\nSceneCollectionFile=Bench\n[BasicWindow]\nPreviewEnabled=false\n")
    (config / "basic/profiles/Bench/basic.ini").write_text(
        "[General]\nName=Bench\n[Video]\nBaseCX=640\nBaseCY=360\nOutputCX=640\nOutputCY=360\n"
        "FPSCommon=30\n")
    (config / "basic/scenes/Bench.json").write_text(json.dumps({
        "name": "Bench", "current_scene": "Scene", "current_program_scene": "Scene",
        "scene_order": [{"name": "Scene"}], "sources": [
            {"id": "scene", "versioned_id": "scene", "name": "Scene",
             "settings": {"id_counter": 0, "items": []}}]}))
    if probe:
        folder = config / "plugins/tessivane-stall-probe/bin/64bit"
        folder.mkdir(parents=True)
        shutil.copy2(build / "tests/real-host/tessivane-stall-probe.so", folder)
    if module:
        folder = config / "plugins/tessivane"
        (folder / "bin/64bit").mkdir(parents=True)
        shutil.copytree(SOURCE / "data", folder / "data")
        shutil.copy2(module, folder / "bin/64bit/tessivane.so")
        (home / ".config/Tessivane").mkdir(parents=True)


def main_thread(pid):
    """CPU seconds of the main thread from stat (ticks) and from schedstat (ns), and resident
    memory in MiB with its anonymous part."""
    stat = Path(f"/proc/{pid}/task/{pid}/stat").read_text()
    fields = stat[stat.rindex(")") + 2:].split()
    ticks = int(fields[11]) + int(fields[12])
    run_ns = int(Path(f"/proc/{pid}/task/{pid}/schedstat").read_text().split()[0])
    status = Path(f"/proc/{pid}/status").read_text()
    kib = {key: int(value) for key, value in re.findall(r"^(\w+):\s+(\d+) kB", status, re.M)}
    return ticks / TICK, run_ns / 1e9, kib["VmRSS"] / 1024, kib["RssAnon"] / 1024


def stalls(path, start, end):
    """(time ms, lateness ms) of the probe's late ticks between start and end (monotonic s)."""
    lines = path.read_text().split("\n")[1:] if path.exists() else []
    ticks = [tuple(int(x) for x in line.split()) for line in lines if line.strip()]
    return [(at, late) for at, late in ticks if start * 1000 <= at <= end * 1000]


def follow(path, stamps, stop):
    """Notes the monotonic time of each chat poll that the service logs."""
    with open(path, errors="replace") as log:
        while not stop.is_set():
            line = log.readline()
            if not line:
                time.sleep(0.005)
            elif CHAT_POLL in line:
                stamps.append(time.monotonic())


def run(args, number):
    work = Path(args.work).resolve() / f"run{number}"
    shutil.rmtree(work, ignore_errors=True)
    session = Session(work / "logs", args.port, args.port + 1000)
    token = secrets.token_urlsafe(32)
    stop, polls = threading.Event(), []
    try:
        line = session.start_service(args.build / "devservice/tessivane-dev-service",
                                     "--busy-chat", "--resume-session", token)
        if "listening" not in line:
            sys.exit(f"The development service did not start: see {work}/logs/dev-service.log")
        service_log = work / "logs/dev-service.log"
        threading.Thread(target=follow, daemon=True, args=(service_log, polls, stop)).start()
        xvfb = session.start("xvfb", ["Xvfb", "-displayfd", "1", "-screen", "0", "3200x1000x24",
                                      "-nolisten", "tcp"], stdout=subprocess.PIPE)
        display = ":" + xvfb.stdout.readline().decode().strip()
        homes = {name: work / name for name in ("alone", "plug-in")}
        for name, home in homes.items():
            make_home(home, args.build, name == "plug-in" and args.module, args.probe)

        def start_obs():
            procs = {}
            for place, (name, home) in enumerate(homes.items()):
                env = {key: value for key, value in os.environ.items()
                       if not key.startswith(("XDG_", "WAYLAND", "QT_"))}
                env.update(HOME=str(home), DISPLAY=display, QT_QPA_PLATFORM="xcb",
                           LANG="C.UTF-8", LIBGL_ALWAYS_SOFTWARE="1",
                           TESSIVANE_STALL_LOG=str(home / "stalls.txt"),
                           TESSIVANE_QT_LOG=str(home / "qt-warnings.txt"))
                procs[name] = session.start(f"obs-{name}", [
                    SOURCE / "devservice/with-dev-ca", "obs", "--disable-shutdown-check",
                    "--multi", "-qwindowgeometry", f"1600x1000+{1600 * place}+0"], env)
            return procs

        def wait(what, done):
            deadline = time.monotonic() + 90
            while not done():
                if time.monotonic() > deadline or any(p.poll() is not None for p in obs.values()):
                    sys.exit(f"Timed out waiting for {what}: see {work}")
                time.sleep(0.25)

        # A first start signed out, where the plug-in shows its docks, and an exit through
        # SIGINT, which OBS takes as a quit: OBS saves where the docks stand, as after a
        # streamer's own first sign-in, and the next start has them in place.
        obs = start_obs()
        wait("the plug-in's first update check", lambda: RELEASES in read(service_log))
        for proc in obs.values():
            proc.send_signal(signal.SIGINT)
        for proc in obs.values():
            proc.wait(60)
            session.stop(proc)
        (homes["plug-in"] / ".config/Tessivane/OBS Plugin.conf").write_text(
            f"[General]\nsessionToken={token}\n")

        started = time.monotonic()
        obs = start_obs()
        wait("a chat poll", lambda: any(stamp > started for stamp in polls))
        time.sleep(max(0.0, started + args.settle - time.monotonic()))
        begin = time.monotonic()
        before = {name: main_thread(proc.pid) for name, proc in obs.items()}
        time.sleep(args.window)
        end = time.monotonic()
        after = {name: main_thread(proc.pid) for name, proc in obs.items()}
        for name, proc in obs.items():
            shutil.copy(f"/proc/{proc.pid}/smaps", work / f"{name}.smaps")
        if args.screenshot:
            subprocess.run(["import", "-display", display, "-window", "root",
                            str(work / "screen.png")], check=False)
    finally:
        stop.set()
        session.close()

    window = end - begin
    result = {}
    for name in obs:
        late = stalls(work / name / "stalls.txt", begin, end)
        result[name] = {
            "cpu_stat": 100 * (after[name][0] - before[name][0]) / window,
            "cpu_sched": 100 * (after[name][1] - before[name][1]) / window,
            "rss": after[name][2], "anon": after[name][3],
            "stall": max((lateness for _, lateness in late), default=0),
        }
    in_window = [stamp for stamp in polls if begin <= stamp <= end]
    for name in obs:
        # A poll's reply is handled right after the service logs it. OBS alone, near the same
        # moments, shows what a busy machine makes of the same span.
        result[name]["poll_stall"] = max(
            (lateness for at, lateness in stalls(work / name / "stalls.txt", begin, end)
             if any(stamp * 1000 - 100 <= at <= stamp * 1000 + 1000 for stamp in in_window)),
            default=0)
    result["polls"] = len(in_window)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, default=SOURCE / "build",
                        help="the build folder with the module, the service and the probe")
    parser.add_argument("--module", type=Path,
                        help="the plug-in to measure (default: the build's), e.g. an older build")
    parser.add_argument("--port", type=int,
                        help="the port of the service origin the module was built for "
                             "(default: the build's)")
    parser.add_argument("--work", default=SOURCE / "build/obs-signed-in",
                        help="folder for the homes and logs")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--settle", type=float, default=25)
    parser.add_argument("--window", type=float, default=60)
    parser.add_argument("--no-probe", dest="probe", action="store_false",
                        help="without the stall probe, whose 200 ticks a second cost CPU too")
    parser.add_argument("--screenshot", action="store_true",
                        help="save the screen at the end of each run as screen.png")
    args = parser.parse_args()
    args.build = args.build.resolve()
    if args.port is None:
        args.port = int(re.search(r"^TESSIVANE_SERVICE_ORIGIN:\w+=https://[^:]+:(\d+)", (
            args.build / "CMakeCache.txt").read_text(), re.M)[1])
    args.module = (args.module or args.build / "tessivane.so").resolve()
    print("run  UI-thread CPU % (stat / schedstat)  resident MiB (anonymous)  longest stall ms"
          "  chat polls  longest near a poll ms", flush=True)
    for number in range(1, args.runs + 1):
        result = run(args, number)
        for name in ("alone", "plug-in"):
            r = result[name]
            print(f"{number:3}  {name:8} {r['cpu_stat']:5.2f} / {r['cpu_sched']:5.3f}"
                  f"   {r['rss']:6.1f} ({r['anon']:6.1f})   {r['stall']:4}", end="")
            print(f"   {result['polls']:2}   {r['poll_stall']:4}")
        alone, plugin = result["alone"], result["plug-in"]
        print(f"{number:3}  {'+':8} {plugin['cpu_stat'] - alone['cpu_stat']:+5.2f} / "
              f"{plugin['cpu_sched'] - alone['cpu_sched']:+5.3f}   "
              f"{plugin['rss'] - alone['rss']:+6.1f} ({plugin['anon'] - alone['anon']:+6.1f})",
              flush=True)


if __name__ == "__main__":
    main()
