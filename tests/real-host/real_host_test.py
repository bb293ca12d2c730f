#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Runs the built module inside a real OBS Studio under Xvfb and drives it like a streamer would,
through the accessibility bus: the docks appear, the demo account signs in, the session survives a
restart of OBS and signing out forgets it. Every process started here is ended on every path."""

import argparse
import contextlib
import ctypes
import os
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
DOCKS = ["Tessivane Account", "Tessivane Channels", "Tessivane Stream Information",
         "Tessivane Stream Health", "Tessivane Chat"]
LOADED = "[Tessivane] Native plugin loaded; waiting for the frontend"
UNLOADED = "[Tessivane] Native plugin unloaded"
INTRO = "Sign in with the same Tessivane account you use on the website."
EMAIL, PASSWORD, NAME = "demo@tessivane.dev", "tessivane-demo", "Demo Streamer"
# Without a window manager OBS keeps the size of its .ui file; a window as large as the screen
# gives the docks room enough to be read in the screenshots.
SCREEN = "1600x1000"
OBS_ARGS = ["--disable-shutdown-check", "--multi", "-qwindowgeometry", f"{SCREEN}+0+0"]
TIME_LIMIT = 120
STOP_SIGNALS = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP)

libc = ctypes.CDLL(None)
pyatspi = None  # imported once the accessibility bus runs


class Failure(Exception):
    pass


def say(text):
    print(f"[real-host] {text}", flush=True)


def check(condition, what):
    if not condition:
        raise Failure(f"check failed: {what}")
    say(f"  ok: {what}")


def wait_for(what, probe, timeout=20):
    """Polls probe until it returns something true. Bus errors while a window is being built
    count as 'not yet'."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            result = probe()
        except Failure:
            raise
        except Exception:
            result = None
        if result:
            say(f"  ok: {what}")
            return result
        if time.monotonic() > deadline:
            raise Failure(f"timed out after {timeout} s: {what}")
        time.sleep(0.25)


def find(root, role, name=None):
    """Nodes below root whose role name ends in role ("text" takes password fields too, "menu item"
    check items) and whose name, if given, is name."""
    found, stack = [], [root]
    while stack:
        node = stack.pop()
        if node.getRoleName().endswith(role) and name in (None, node.name):
            found.append(node)
        stack.extend(reversed([child for child in node if child is not None]))
    return found


def showing(node):
    return node.getState().contains(pyatspi.STATE_SHOWING)


def extents(node):
    box = node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    return box.x, box.y, box.width, box.height


def press(node):
    node.queryAction().doAction(0)


def read(path):
    return path.read_text(errors="replace") if path.exists() else ""


def colour(image, box, statistic="mean"):
    """The mean, or with "maxima" the per-channel maximum, of a box of a screenshot."""
    x, y, w, h = box
    fmt = " ".join(f"%[fx:int(255*{statistic}.{c}+.5)]" for c in "rgb")
    out = subprocess.run(["convert", str(image), "-crop", f"{w}x{h}+{x}+{y}", "+repage",
                          "-format", fmt, "info:"], capture_output=True, text=True, check=True)
    return tuple(int(v) for v in out.stdout.split())


class Host:
    def __init__(self, args):
        self.args = args
        self.work = Path(args.work).resolve()
        self.run = self.work / "run"
        self.home = self.run / "home"
        self.obs_config = self.home / ".config/obs-studio"
        self.settings = self.home / ".config/Tessivane/OBS Plugin.conf"
        self.runtime = tempfile.mkdtemp(prefix="tessivane-rt-")  # short: sockets live here
        self.procs = []
        self.obs = self.app = self.log = None

    def start(self, name, argv, env=None, death=signal.SIGKILL, announces=False):
        """Starts a child in a session of its own, so that it ends with whatever it spawns, and
        that dies with this driver. One that announces is ready when it prints its first line."""
        with open(self.run / f"{name}.log", "ab") as log:
            proc = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE if announces else log, stderr=log,
                                    start_new_session=True,
                                    preexec_fn=lambda: libc.prctl(1, int(death)))  # PDEATHSIG
        self.procs.append(proc)
        if not announces:
            return proc
        ready = select.select([proc.stdout], [], [], 20)[0]
        return proc.stdout.readline().decode().strip() if ready else ""

    def stop(self, proc):
        # The group can outlive its leader, so it is killed even when the leader has ended.
        self.procs.remove(proc)
        for signum in (signal.SIGTERM, signal.SIGKILL):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(proc.pid, signum)
            with contextlib.suppress(subprocess.TimeoutExpired):
                proc.wait(3)

    def close(self):
        while self.procs:
            self.stop(self.procs[-1])
        shutil.rmtree(self.runtime, ignore_errors=True)

    def prepare_home(self):
        shutil.rmtree(self.run, ignore_errors=True)
        for shot in self.work.glob("*.png"):
            shot.unlink()
        plugin = self.obs_config / "plugins/tessivane"
        (plugin / "bin/64bit").mkdir(parents=True)
        # The first run is behind OBS, so the auto-configuration wizard stays away; OBS makes the
        # profile and the scene collection itself.
        (self.obs_config / "global.ini").write_text("[General]\nFirstRun=true\n")
        shutil.copytree(SOURCE / "data", plugin / "data")
        shutil.copy2(self.args.module, plugin / "bin/64bit/tessivane.so")

    def start_services(self):
        for key in [k for k in os.environ if k.startswith(("XDG_", "WAYLAND", "QT_", "DBUS_",
                                                           "AT_SPI"))]:
            del os.environ[key]
        os.environ.update(HOME=str(self.home), XDG_RUNTIME_DIR=self.runtime, LANG="C.UTF-8")
        display = self.start("xvfb", ["Xvfb", "-displayfd", "1", "-screen", "0", f"{SCREEN}x24",
                                      "-nolisten", "tcp"], announces=True)
        check(display.isdigit(), f"Xvfb runs on :{display}")
        os.environ["DISPLAY"] = f":{display}"
        bus = self.start("dbus-session", ["dbus-daemon", "--session", "--nofork",
                                          "--print-address=1"], announces=True)
        check(bus, f"the session bus runs at {bus}")
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = bus
        port = self.args.port
        line = self.start("dev-service", [self.args.dev_service, "--port", str(port)],
                          announces=True)
        check(line == f"Tessivane development service listening on https://127.0.0.1:{port}",
              line or f"the development service starts: {read(self.run / 'dev-service.log')}")
        # Started here rather than by bus activation, so that it belongs to this run; SIGTERM on
        # the driver's death lets it take its own bus and registry down with it.
        self.start("at-spi", ["/usr/libexec/at-spi-bus-launcher", "--launch-immediately"],
                   death=signal.SIGTERM)
        wait_for("the accessibility bus runs", lambda: b"true" in subprocess.run(
            ["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
             "org.freedesktop.DBus.NameHasOwner", "string:org.a11y.Bus"],
            capture_output=True).stdout)
        global pyatspi
        import pyatspi

    def start_obs(self):
        logs = self.obs_config / "logs"
        before = set(logs.glob("*.txt"))
        # with-dev-ca makes this one process trust the development CA; it execs, keeping the pid.
        argv = [SOURCE / "devservice/with-dev-ca", "obs", *OBS_ARGS]
        say(f"  starting OBS: {' '.join(map(str, argv))}")
        self.obs = self.start("obs", argv, dict(
            os.environ, QT_QPA_PLATFORM="xcb", QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1",
            LIBGL_ALWAYS_SOFTWARE="1"))
        self.log = wait_for("OBS opens a new log file",
                            lambda: next(iter(set(logs.glob("*.txt")) - before), None), 30)
        self.app = wait_for("OBS is on the accessibility bus", self.find_app, 40)

    def find_app(self):
        if self.obs.poll() is not None:
            raise Failure(f"OBS ended early with status {self.obs.returncode}")
        return next((app for app in pyatspi.Registry.getDesktop(0)
                     if app and app.get_process_id() == self.obs.pid), None)

    def window(self):
        return next((node for node in self.app
                     if node.getRoleName() == "frame" and node.name.startswith("OBS ")), None)

    def dock(self, title):
        return next(iter(find(self.window(), "frame", title)), None)

    def shown(self, role, name=None):
        """The nodes showing in the Account dock."""
        return [node for node in find(self.dock(DOCKS[0]), role, name) if showing(node)]

    def screenshot(self, name):
        path = self.work / name
        subprocess.run(["import", "-window", "root", str(path)], check=True)
        say(f"  screenshot {path}")
        return path

    def exit_obs(self):
        """Ends OBS through File > Exit, the way that unloads modules."""
        exit_item = find(self.window(), "menu item", "Exit")
        check(exit_item, "OBS's File menu has Exit")
        with contextlib.suppress(Exception):  # OBS may be gone before it answers
            press(exit_item[0])
        wait_for("OBS ends", lambda: self.obs.poll() is not None, 30)
        self.stop(self.obs)
        self.app = None
        check(self.obs.returncode == 0, f"OBS ended with status {self.obs.returncode}")
        check(UNLOADED in read(self.log), f"the log holds \"{UNLOADED}\"")


def entry_fields(host):
    """The Account dock's password and e-mail fields; the sign-in form shows exactly these."""
    fields = sorted(host.shown("text"), key=lambda field: field.getRoleName())
    check([f.getRoleName() for f in fields] == ["password text", "text"],
          "the Account dock shows a password and an e-mail field")
    return fields


def password_nowhere(host):
    leaks = [str(p) for p in host.home.rglob("*")
             if p.is_file() and PASSWORD.encode() in p.read_bytes()]
    check(not leaks, f"the password is in no file under the private home {leaks}")


def run(host):
    say("step 1: a fresh home with the module in the per-user plug-in folder")
    host.prepare_home()
    say("step 2: Xvfb, D-Bus, the accessibility bus, the development service and OBS")
    host.start_services()
    host.start_obs()

    say("step 3: OBS's log shows the module loaded")
    wait_for(f"the log holds \"{LOADED}\"", lambda: LOADED in read(host.log), 30)

    say("step 4: the five docks stand in the main window with the shared look")
    wx, wy, ww, wh = extents(wait_for("OBS shows its main window", host.window))
    for title in DOCKS:
        dock = wait_for(f"dock \"{title}\" is showing",
                        lambda: (d := host.dock(title)) and showing(d) and d, 30)
        x, y, w, h = extents(dock)
        check(w > 0 and h > 0 and wx <= x and x + w <= wx + ww and wy <= y and y + h <= wy + wh,
              f"it stands inside the main window at {x},{y} {w}x{h}")
    for role, name in (("label", "TESSIVANE"), ("label", "Account"), ("label", INTRO),
                       ("button", "Sign In")):
        check(host.shown(role, name), f"the Account dock shows {role} \"{name}\"")
    password, email = entry_fields(host)
    image = host.screenshot("docks.png")
    # The docks' own look: a dark green-black root that glows green from the upper left, unlike
    # OBS's grey-blue theme around it. Sampled in the root's margin, left of every child.
    x, y, w, h = extents(host.dock(DOCKS[0]))
    top = colour(image, (x + 2, y + 30, 8, 40))
    bottom = colour(image, (x + w - 10, y + h - 30, 8, 20))
    check(top[1] > top[0] + 15 and top[1] > top[2] and top[1] < 140,
          f"the Account dock's upper left glows dark green {top}")
    check(max(bottom) < 40 and bottom[1] >= bottom[0] and bottom[1] >= bottom[2],
          f"the Account dock's lower right is green-black {bottom}")
    # The brand line is mint (#43f5ce), not the white of the other texts: red stays low.
    brand = colour(image, extents(host.shown("label", "TESSIVANE")[0]), "maxima")
    check(brand[0] < 110 and brand[1] > 200 and brand[2] > 170,
          f"the brand line \"TESSIVANE\" is mint {brand}")

    say("step 5: signing in with the demo account")
    email.queryEditableText().setTextContents(EMAIL)
    password.queryEditableText().setTextContents(PASSWORD)
    press(host.shown("button", "Sign In")[0])
    wait_for(f"the account page shows \"{NAME}\"", lambda: host.shown("label", NAME))
    check(host.shown("label", f"Creator plan\n{EMAIL}"), "it shows the plan and the address")
    check(host.shown("button", "Sign Out"), "it offers Sign Out")
    check(not host.shown("button", "Sign In"), "the sign-in form is hidden")
    # A password field hides its text from the bus but tells its length.
    check(password.queryText().characterCount == 0, "the password field was cleared")
    host.screenshot("account.png")
    wait_for("the settings file holds sessionToken",
             lambda: re.search(r"^sessionToken=\S", read(host.settings), re.M), 10)
    password_nowhere(host)

    say("step 6: OBS's own Exit unloads the module")
    host.exit_obs()

    say("step 7: a restart restores the session, and Sign Out forgets it")
    host.start_obs()
    # OBS brings a plug-in's docks back hidden after a restart; a streamer opens them from Docks.
    dock = wait_for("the Account dock is registered", lambda: host.dock(DOCKS[0]), 30)
    if not showing(dock):
        item = find(host.window(), "menu item", DOCKS[0])
        check(item, f"the Docks menu lists \"{DOCKS[0]}\"")
        press(item[0])
        wait_for("the Account dock is showing", lambda: showing(host.dock(DOCKS[0])), 10)
    wait_for(f"the restored session shows \"{NAME}\"", lambda: host.shown("label", NAME), 30)
    press(host.shown("button", "Sign Out")[0])
    wait_for("Sign Out brings the sign-in page back", lambda: host.shown("button", "Sign In"))
    check(not host.shown("label", NAME), "the account page is gone")
    entry_fields(host)
    host.screenshot("signin.png")
    wait_for("the settings file no longer holds sessionToken",
             lambda: "sessionToken" not in read(host.settings), 10)
    check("POST /api/auth/logout 200" in read(host.run / "dev-service.log"),
          "the service saw the sign-out")
    host.exit_obs()
    password_nowhere(host)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--module", required=True, help="the built tessivane.so")
    parser.add_argument("--dev-service", required=True, help="the tessivane-dev-service binary")
    parser.add_argument("--port", type=int, required=True, help="port of the service origin")
    parser.add_argument("--work", required=True, help="folder for screenshots and logs")
    host = Host(parser.parse_args())

    def give_up(signum, _frame):
        raise Failure(f"the run took longer than {TIME_LIMIT} s" if signum == signal.SIGALRM
                      else f"stopped by signal {signum}")

    for signum in (*STOP_SIGNALS, signal.SIGALRM):
        signal.signal(signum, give_up)
    signal.alarm(TIME_LIMIT)
    try:
        run(host)
        say("PASS: OBS ran the module through sign-in, restart and sign-out")
        return 0
    except Exception as failure:
        say(f"FAIL: {failure}" if isinstance(failure, Failure) else f"FAIL: {failure!r}")
        with contextlib.suppress(Exception):  # the failure is reported already
            if host.app is not None:
                (host.run / "accessibility-tree.txt").write_text("".join(
                    f"[{node.getRoleName()}] {node.name!r}\n" for node in find(host.app, "")))
                host.screenshot("failure.png")
        say(f"  logs in {host.run}")
        return 1
    finally:
        # Nothing may interrupt the cleanup, not even the time limit.
        signal.alarm(0)
        for signum in STOP_SIGNALS:
            signal.signal(signum, signal.SIG_IGN)
        host.close()


if __name__ == "__main__":
    sys.exit(main())
