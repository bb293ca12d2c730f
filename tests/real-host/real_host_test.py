#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Runs the built module inside a real OBS Studio under Xvfb and drives it like a streamer would,
through the accessibility bus: the docks appear, the demo account signs in, the session survives a
restart of OBS and signing out forgets it. Every process started here is ended on every path."""

import argparse
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

DOCK_TITLES = [
    "Tessivane Account",
    "Tessivane Channels",
    "Tessivane Stream Information",
    "Tessivane Stream Health",
    "Tessivane Chat",
]
LOADED_LINE = "[Tessivane] Native plugin loaded; waiting for the frontend"
UNLOADED_LINE = "[Tessivane] Native plugin unloaded"
SIGN_IN_INTRO = "Sign in with the same Tessivane account you use on the website."
DEMO_EMAIL = "demo@tessivane.dev"
DEMO_PASSWORD = "tessivane-demo"
DEMO_NAME = "Demo Streamer"

# Without a window manager OBS keeps the size of its .ui file; a larger first window gives the
# docks room enough to be read in the screenshots.
SCREEN = (1600, 1000)
OBS_ARGS = ["--disable-shutdown-check", "--multi", "-qwindowgeometry", "1600x1000+0+0"]

PR_SET_PDEATHSIG = 1
libc = ctypes.CDLL(None, use_errno=True)


class Failure(Exception):
    pass


def say(text):
    print(f"[real-host] {text}", flush=True)


def ok(message):
    say(f"  ok: {message}")


def check(condition, message):
    if not condition:
        raise Failure(f"check failed: {message}")
    ok(message)


def wait_for(what, probe, timeout, interval=0.25):
    """Polls probe until it returns something true; accessibility calls that fail while a window
    is being built count as 'not yet'."""
    deadline = time.monotonic() + timeout
    while True:
        try:
            result = probe()
        except Failure:
            raise
        except Exception:  # noqa: BLE001 - any bus or lookup error means "not there yet"
            result = None
        if result:
            return result
        if time.monotonic() > deadline:
            raise Failure(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


class Processes:
    """Children in sessions of their own, so that each can be ended together with whatever it
    spawned (at-spi-bus-launcher starts a bus and a registry). Each also dies with this driver."""

    def __init__(self, logdir):
        self.logdir = logdir
        self.running = []

    def start(self, name, argv, env, death_signal=signal.SIGKILL, stdout=None, pass_fds=()):
        def prepare():
            libc.prctl(PR_SET_PDEATHSIG, int(death_signal))

        log = open(self.logdir / f"{name}.log", "ab")
        proc = subprocess.Popen(argv, env=env, stdin=subprocess.DEVNULL,
                                stdout=stdout if stdout is not None else log, stderr=log,
                                pass_fds=pass_fds, start_new_session=True, preexec_fn=prepare)
        log.close()
        self.running.append((name, proc))
        return proc

    def stop(self, proc, grace=5.0):
        for name, p in list(self.running):
            if p is proc:
                self.running.remove((name, p))
        if proc.poll() is None:
            try:
                os.killpg(proc.pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
            try:
                proc.wait(grace)
            except subprocess.TimeoutExpired:
                pass
        # The group outlives its leader when the leader exits first.
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        try:
            proc.wait(grace)
        except subprocess.TimeoutExpired:
            say(f"warning: process {proc.pid} did not end")

    def stop_all(self):
        for _, proc in reversed(list(self.running)):
            self.stop(proc, grace=3.0)


def read_line_from(proc, timeout):
    """Reads one line of a child's stdout without blocking past the timeout."""
    deadline = time.monotonic() + timeout
    data = b""
    fd = proc.stdout.fileno()
    while not data.endswith(b"\n"):
        remaining = deadline - time.monotonic()
        if remaining <= 0 or not select.select([fd], [], [], remaining)[0]:
            return None
        chunk = os.read(fd, 1)
        if not chunk:
            return None
        data += chunk
    return data.decode(errors="replace").strip()


# --- accessibility helpers ---------------------------------------------------------------------

pyatspi = None


def children(acc):
    out = []
    for i in range(acc.childCount):
        child = acc.getChildAtIndex(i)
        if child is not None:
            out.append(child)
    return out


def walk(acc, skip_menus=True):
    stack = [acc]
    while stack:
        node = stack.pop()
        yield node
        role = node.getRoleName()
        if skip_menus and role in ("menu bar", "popup menu"):
            continue
        stack.extend(reversed(children(node)))


def find_all(root, role=None, name=None, skip_menus=True):
    """Nodes below root by role (one or a tuple) and by name (a text, or a test on the name)."""
    roles = (role,) if isinstance(role, str) else role
    matches = (lambda n: n == name) if isinstance(name, str) else name
    return [node for node in walk(root, skip_menus)
            if (roles is None or node.getRoleName() in roles)
            and (matches is None or matches(node.name))]


def showing(acc):
    return acc.getState().contains(pyatspi.STATE_SHOWING)


def extents(acc):
    box = acc.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    return box.x, box.y, box.width, box.height


def press(acc, action="press"):
    actions = acc.queryAction()
    names = [actions.getName(i).lower() for i in range(actions.nActions)]
    actions.doAction(names.index(action) if action in names else 0)


def dump_tree(root, path):
    with open(path, "w") as out:
        def visit(node, depth):
            try:
                out.write(f"{'  ' * depth}[{node.getRoleName()}] {node.name!r}\n")
                for child in children(node):
                    visit(child, depth + 1)
            except Exception as error:  # noqa: BLE001 - a diagnostic dump must not fail the report
                out.write(f"{'  ' * depth}<{error}>\n")
        visit(root, 0)


# --- the session around OBS --------------------------------------------------------------------

class Session:
    def __init__(self, args):
        self.args = args
        self.work = Path(args.work).resolve()
        self.run = self.work / "run"
        self.home = self.run / "home"
        self.obs_config = self.home / ".config" / "obs-studio"
        self.settings_file = self.home / ".config" / "Tessivane" / "OBS Plugin.conf"
        self.procs = Processes(self.run)
        self.env = None
        self.obs = None
        self.obs_runs = 0
        self.log_file = None
        self.app = None
        self.runtime = None

    def close(self):
        self.procs.stop_all()
        if self.runtime is not None:
            shutil.rmtree(self.runtime, ignore_errors=True)

    # Step 1
    def prepare_home(self):
        for built in (self.args.module, self.args.dev_service):
            if not Path(built).is_file():
                raise Failure(f"{built} is missing: build the targets tessivane and "
                              "tessivane-dev-service first")
        shutil.rmtree(self.run, ignore_errors=True)
        for shot in ("docks.png", "account.png", "signin.png", "failure.png"):
            (self.work / shot).unlink(missing_ok=True)
        self.obs_config.mkdir(parents=True)
        # FirstRun=true tells OBS its first run is behind it, so the auto-configuration wizard
        # stays away; OBS makes the profile and the scene collection itself.
        (self.obs_config / "global.ini").write_text("[General]\nFirstRun=true\n")
        plugin = self.obs_config / "plugins" / "tessivane"
        (plugin / "bin" / "64bit").mkdir(parents=True)
        shutil.copytree(Path(__file__).resolve().parents[2] / "data", plugin / "data")
        shutil.copy2(self.args.module, plugin / "bin" / "64bit" / "tessivane.so")

    # Step 2
    def start_desktop(self):
        # Short and private: the accessibility bus puts its socket here.
        self.runtime = runtime = Path(tempfile.mkdtemp(prefix="tessivane-rt-"))
        env = {key: value for key, value in os.environ.items()
               if not key.startswith(("XDG_", "WAYLAND", "QT_", "DBUS_", "AT_SPI"))}
        env.update(HOME=str(self.home), XDG_RUNTIME_DIR=str(runtime), LANG="C.UTF-8")

        read_end, write_end = os.pipe()
        xvfb = self.procs.start("xvfb", ["Xvfb", "-displayfd", str(write_end), "-screen", "0",
                                         f"{SCREEN[0]}x{SCREEN[1]}x24", "-nolisten", "tcp"],
                                env, pass_fds=(write_end,))
        os.close(write_end)
        with os.fdopen(read_end, "rb") as announced:
            ready, _, _ = select.select([announced], [], [], 20)
            display = announced.readline().decode().strip() if ready else ""
        if not display.isdigit():
            raise Failure(f"Xvfb did not announce a display (exit status {xvfb.poll()})")
        env["DISPLAY"] = f":{display}"
        wait_for(f"display :{display} to accept clients",
                 lambda: subprocess.run(["xdpyinfo"], env=env, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL).returncode == 0, 15)

        bus = self.procs.start("dbus-session", ["dbus-daemon", "--session", "--nofork",
                                                "--print-address=1"], env, stdout=subprocess.PIPE)
        address = read_line_from(bus, 15)
        if not address:
            raise Failure("the D-Bus session bus did not announce its address")
        env["DBUS_SESSION_BUS_ADDRESS"] = address

        # Started here rather than by bus activation, so that it belongs to this run; SIGTERM on
        # the driver's death lets it take its own bus and registry down with it.
        self.procs.start("at-spi", ["/usr/libexec/at-spi-bus-launcher", "--launch-immediately"],
                         env, death_signal=signal.SIGTERM)
        wait_for("the accessibility bus launcher", lambda: b"true" in subprocess.run(
            ["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/",
             "org.freedesktop.DBus.NameHasOwner", "string:org.a11y.Bus"],
            env=env, capture_output=True).stdout, 15)

        os.environ.update(DISPLAY=env["DISPLAY"], DBUS_SESSION_BUS_ADDRESS=address,
                          XDG_RUNTIME_DIR=str(runtime))
        global pyatspi
        import pyatspi as module
        pyatspi = module
        self.env = env
        say(f"  Xvfb on :{display}, session bus {address}")

    def start_service(self):
        port = self.args.port
        service = self.procs.start("dev-service", [self.args.dev_service, "--port", str(port)],
                                   self.env, stdout=subprocess.PIPE)
        line = read_line_from(service, 20)
        expected = f"Tessivane development service listening on https://127.0.0.1:{port}"
        if line != expected:
            self.procs.stop(service)
            reason = (self.run / "dev-service.log").read_text(errors="replace").strip()
            raise Failure(f"the development service did not start on port {port}: "
                          f"{reason or line!r}")
        say(f"  {line}")

    def obs_environment(self):
        env = dict(self.env)
        env.update(QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1", LIBGL_ALWAYS_SOFTWARE="1",
                   QT_QPA_PLATFORM="xcb")
        return env

    def start_obs(self):
        self.obs_runs += 1
        logs = self.obs_config / "logs"
        before = set(logs.glob("*.txt")) if logs.is_dir() else set()
        # with-dev-ca makes this one process trust the development CA; exec keeps the pid.
        argv = [self.args.with_dev_ca, "obs", *OBS_ARGS]
        say(f"  starting OBS (run {self.obs_runs}): {' '.join(argv)}")
        self.obs = self.procs.start(f"obs-{self.obs_runs}", argv, self.obs_environment())
        self.log_file = wait_for("OBS to open a new log file", lambda: next(
            iter(sorted(set(logs.glob("*.txt")) - before)), None), 30)
        self.app = wait_for("OBS on the accessibility bus", self.find_app, 40)

    def find_app(self):
        if self.obs.poll() is not None:
            raise Failure(f"OBS ended early with status {self.obs.returncode} "
                          f"(see {self.run / f'obs-{self.obs_runs}.log'})")
        for app in children(pyatspi.Registry.getDesktop(0)):
            try:
                if app.get_process_id() == self.obs.pid:
                    return app
            except Exception:  # noqa: BLE001 - other applications may vanish under us
                continue
        return None

    def log_has(self, line):
        return line in self.log_file.read_text(errors="replace")

    def main_window(self):
        frames = [c for c in children(self.app)
                  if c.getRoleName() == "frame" and c.name.startswith("OBS ")]
        return frames[0] if frames else None

    def dock(self, title):
        window = self.main_window()
        docks = find_all(window, "frame", title) if window else []
        return docks[0] if docks else None

    def account_dock(self):
        return self.dock("Tessivane Account")

    def showing_in_account(self, role, name):
        dock = self.account_dock()
        return [n for n in find_all(dock, role, name) if showing(n)] if dock else []

    def screenshot(self, name):
        path = self.work / name
        subprocess.run(["import", "-window", "root", str(path)], env=self.env, check=True)
        say(f"  screenshot {path}")
        return path

    def colour(self, image, box, statistic="mean"):
        """The mean, or the per-channel maximum, of the pixels in a box of a screenshot."""
        x, y, w, h = box
        channel = {"mean": "mean.{}", "max": "maxima.{}"}[statistic]
        fmt = " ".join(f"%[fx:int(255*{channel.format(c)}+.5)]" for c in "rgb")
        out = subprocess.run(["convert", str(image), "-crop", f"{w}x{h}+{x}+{y}", "+repage",
                              "-format", fmt, "info:"],
                             capture_output=True, text=True, check=True).stdout
        return tuple(int(v) for v in out.split())

    def service_log(self):
        return (self.run / "dev-service.log").read_text(errors="replace")

    def exit_obs(self):
        """Ends OBS through File > Exit, the way that unloads modules."""
        window = self.main_window()
        file_menu = find_all(window, "menu item", "File", skip_menus=False)
        check(file_menu, "OBS has a File menu")
        exit_item = find_all(file_menu[0], "menu item", "Exit", skip_menus=False)
        check(exit_item, "the File menu has Exit")
        try:
            press(exit_item[0])
        except Exception:  # noqa: BLE001 - OBS may be gone before it answers the call
            pass
        try:
            status = self.obs.wait(30)
        except subprocess.TimeoutExpired:
            raise Failure("OBS did not end within 30 s of File > Exit") from None
        self.procs.stop(self.obs)
        self.app = None
        check(status == 0, f"OBS ended with status {status}")
        check(self.log_has(UNLOADED_LINE), f"the log holds \"{UNLOADED_LINE}\"")

    def settings_text(self):
        if not self.settings_file.exists():
            return ""
        return self.settings_file.read_text(errors="replace")


# --- the steps ---------------------------------------------------------------------------------

def check_docks(session):
    window = wait_for("the main window", session.main_window, 20)
    missing = list(DOCK_TITLES)

    def all_docks_showing():
        missing[:] = [t for t in DOCK_TITLES if not ((d := session.dock(t)) and showing(d))]
        return not missing

    try:
        wait_for("the five Tessivane docks", all_docks_showing, 30)
    except Failure as failure:
        raise Failure(f"{failure}; not showing: {missing}") from None
    wx, wy, ww, wh = extents(window)
    for title in DOCK_TITLES:
        dock = session.dock(title)
        x, y, w, h = extents(dock)
        check(w > 0 and h > 0 and x >= wx and y >= wy and x + w <= wx + ww and y + h <= wy + wh,
              f"dock \"{title}\" stands inside the main window at {x},{y} {w}x{h}")

    dock = session.account_dock()
    for role, name in (("label", "TESSIVANE"), ("label", "Account"), ("label", SIGN_IN_INTRO),
                       ("button", "Sign In")):
        check(session.showing_in_account(role, name), f"the Account dock shows {role} \"{name}\"")
    fields = [f for f in find_all(dock, ("text", "password text")) if showing(f)]
    check(len(fields) == 2, f"the Account dock shows two entry fields (found {len(fields)})")

    image = session.screenshot("docks.png")
    # The docks' own look: a dark green-black root that glows green from the upper left, unlike
    # OBS's grey-blue theme around it. Sampled in the root's margin, left of every child.
    x, y, w, h = extents(dock)
    top = session.colour(image, (x + 2, y + 30, 8, 40))
    bottom = session.colour(image, (x + w - 10, y + h - 30, 8, 20))
    check(top[1] > top[0] + 15 and top[1] > top[2] and top[1] < 140,
          f"the Account dock's upper left glows dark green {top}")
    check(max(bottom) < 40 and bottom[1] >= bottom[0] and bottom[1] >= bottom[2],
          f"the Account dock's lower right is green-black {bottom}")
    # The brand line is mint (#43f5ce), not the white of the other texts: red stays low.
    brand = session.colour(image, extents(session.showing_in_account("label", "TESSIVANE")[0]),
                           "max")
    check(brand[0] < 110 and brand[1] > 200 and brand[2] > 170,
          f"the brand line \"TESSIVANE\" is mint {brand}")


def entry_fields(session):
    dock = session.account_dock()
    fields = [f for f in find_all(dock, ("text", "password text")) if showing(f)]
    email = [f for f in fields if f.getRoleName() == "text"]
    password = [f for f in fields if f.getRoleName() == "password text"]
    if len(email) != 1 or len(password) != 1:
        raise Failure(f"expected one e-mail and one password field, found "
                      f"{[(f.getRoleName(), f.name) for f in fields]}")
    return email[0], password[0]


def field_text(field):
    text = field.queryText()
    return text.getText(0, text.characterCount)


def field_length(field):
    # A password field hides its text from the accessibility bus but still tells its length.
    return field.queryText().characterCount


def sign_in(session):
    email, password = entry_fields(session)
    email.queryEditableText().setTextContents(DEMO_EMAIL)
    password.queryEditableText().setTextContents(DEMO_PASSWORD)
    check(field_text(email) == DEMO_EMAIL, "the e-mail field holds the demo address")
    check(field_length(password) == len(DEMO_PASSWORD), "the password field is filled")
    press(session.showing_in_account("button", "Sign In")[0])
    wait_for(f"\"{DEMO_NAME}\" on the account page",
             lambda: session.showing_in_account("label", DEMO_NAME), 20)
    ok(f"the account page shows \"{DEMO_NAME}\"")
    check(session.showing_in_account("label", lambda n: n.startswith("Creator plan")),
          "the account page shows \"Creator plan\"")
    check(session.showing_in_account("button", "Sign Out"), "the account page offers Sign Out")
    check(not session.showing_in_account("button", "Sign In"), "the sign-in form is hidden")
    check(field_length(password) == 0, "the password field was cleared")
    session.screenshot("account.png")

    settings = wait_for("the session token in the settings file",
                        lambda: "sessionToken=" in session.settings_text() and
                        session.settings_text(), 10)
    check(re.search(r"^sessionToken=\S+", settings, re.M),
          f"\"{session.settings_file}\" holds sessionToken")
    check(DEMO_PASSWORD not in settings, "the settings file does not hold the password")


def password_nowhere(session):
    leaks = [str(p) for p in session.home.rglob("*") if p.is_file() and
             DEMO_PASSWORD.encode() in p.read_bytes()]
    check(not leaks, f"the password is in no file under the private home {leaks}")


def open_account_dock(session):
    """Brings the Account dock up through the Docks menu, as a streamer would: OBS adds a plug-in's
    docks hidden, and a restored session leaves them as they are."""
    dock = wait_for("the Account dock to be registered", session.account_dock, 30)
    if showing(dock):
        return
    window = session.main_window()
    docks_menu = find_all(window, "menu item", "Docks", skip_menus=False)
    check(docks_menu, "OBS has a Docks menu")
    item = find_all(docks_menu[0], ("menu item", "check menu item"), "Tessivane Account",
                    skip_menus=False)
    check(item, "the Docks menu lists \"Tessivane Account\"")
    press(item[0])
    wait_for("the Account dock to show", lambda: showing(session.account_dock()), 10)
    ok("the Docks menu opened the Account dock")


def restore_and_sign_out(session):
    open_account_dock(session)
    wait_for(f"the restored session to show \"{DEMO_NAME}\"",
             lambda: session.showing_in_account("label", DEMO_NAME), 30)
    ok(f"the restored session shows \"{DEMO_NAME}\" after the first reply")
    press(session.showing_in_account("button", "Sign Out")[0])
    wait_for("the sign-in page after Sign Out",
             lambda: session.showing_in_account("button", "Sign In"), 20)
    check(not session.showing_in_account("label", DEMO_NAME), "the account page is gone")
    entry_fields(session)
    ok("the sign-in form is back")
    session.screenshot("signin.png")
    wait_for("sessionToken to leave the settings file",
             lambda: "sessionToken" not in session.settings_text(), 10)
    ok("the settings file no longer holds sessionToken")
    check("POST /api/auth/logout 200" in session.service_log(),
          "the service saw the session's sign-out")


def run(args):
    session = Session(args)
    steps = [
        "1: a fresh home with the module in the per-user plug-in folder",
        "2: Xvfb, D-Bus, the accessibility bus, the development service and OBS",
        "3: OBS's log shows the module loaded",
        "4: the five docks stand in the main window with the shared look",
        "5: signing in with the demo account",
        "6: OBS's own Exit unloads the module",
        "7: a restart restores the session, and Sign Out forgets it",
    ]
    try:
        say(f"step {steps[0]}")
        session.prepare_home()
        say(f"step {steps[1]}")
        session.start_desktop()
        session.start_service()
        session.start_obs()
        say(f"step {steps[2]}")
        wait_for(f"\"{LOADED_LINE}\" in {session.log_file}",
                 lambda: session.log_has(LOADED_LINE), 30)
        ok(f"the log holds \"{LOADED_LINE}\"")
        say(f"step {steps[3]}")
        check_docks(session)
        say(f"step {steps[4]}")
        sign_in(session)
        say(f"step {steps[5]}")
        session.exit_obs()
        say(f"step {steps[6]}")
        session.start_obs()
        restore_and_sign_out(session)
        session.exit_obs()
        password_nowhere(session)
        say("PASS: OBS ran the module through sign-in, restart and sign-out")
        return 0
    except Exception as failure:  # noqa: BLE001 - any fault ends the run with its diagnostics
        say(f"FAIL: {failure}" if isinstance(failure, Failure)
            else f"FAIL: {type(failure).__name__}: {failure}")
        if session.app is not None:
            tree = session.run / "accessibility-tree.txt"
            dump_tree(session.app, tree)
            say(f"  accessibility tree in {tree}")
            try:
                session.screenshot("failure.png")
            except Exception:  # noqa: BLE001 - the failure is already reported
                pass
        say(f"  logs in {session.run}")
        return 1
    finally:
        # Nothing may interrupt the cleanup, not even the time limit.
        signal.alarm(0)
        for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(signum, signal.SIG_IGN)
        session.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--module", required=True, help="the built tessivane.so")
    parser.add_argument("--dev-service", required=True, help="the tessivane-dev-service binary")
    parser.add_argument("--with-dev-ca", required=True, help="devservice/with-dev-ca")
    parser.add_argument("--port", type=int, required=True, help="port of the service origin")
    parser.add_argument("--work", required=True, help="folder for screenshots and logs")
    parser.add_argument("--time-limit", type=int, default=120,
                        help="seconds after which the run fails and cleans up")
    args = parser.parse_args()

    def give_up(signum, _frame):
        raise Failure(f"stopped by signal {signum}" if signum != signal.SIGALRM
                      else f"the run took longer than {args.time_limit} s")

    for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGALRM):
        signal.signal(signum, give_up)
    signal.alarm(args.time_limit)
    sys.exit(run(args))


if __name__ == "__main__":
    main()
