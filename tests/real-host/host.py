# SPDX-License-Identifier: GPL-2.0-or-later
"""What the real-host test drives OBS with: the host process and its private home, the
development service, and the accessibility bus."""

import contextlib
import ctypes
import json
import os
import re
import shutil
import ssl
import subprocess
import sys
import time
import urllib.error
import urllib.request
from pathlib import Path

import pyatspi

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "scripts"))
from obs_session import Session  # noqa: E402

DOCKS = ["Tessivane Account", "Tessivane Channels", "Tessivane Stream Information",
         "Tessivane Stream Health", "Tessivane Chat"]
LOADED = "[Tessivane] Native plugin loaded; waiting for the frontend"
UNLOADED = "[Tessivane] Native plugin unloaded"
# OBS's main window when nothing is saved, measured in OBS 30.2.3.
DEFAULT_SIZE = (1086, 763)


BEGAN = time.monotonic()


def check(condition, what):
    if not condition:
        raise AssertionError(f"check failed: {what}")
    print(f"  ok {time.monotonic() - BEGAN:5.1f} s: {what}", flush=True)


def within(probe, timeout):
    """What probe gives once it gives something, or None after timeout seconds. Bus errors while
    a window is being built count as "not yet"."""
    deadline = time.monotonic() + timeout
    while True:
        with contextlib.suppress(Exception):
            if result := probe():
                return result
        if time.monotonic() > deadline:
            return None
        time.sleep(0.25)


def wait_for(what, probe, timeout=30):
    result = within(probe, timeout)
    check(result, what if result else f"timed out after {timeout} s: {what}")
    return result


def find(root, role, name=None):
    # A role "text" takes password fields too. A node that goes while the tree is walked (a list
    # that a poll rebuilds) reads as None, and is passed over.
    def walk(node):
        if node is None:
            return
        for child in node:
            with contextlib.suppress(Exception):
                if child.getRoleName().endswith(role) and name in (None, child.name):
                    yield child
            yield from walk(child)
    return list(walk(root))


def showing(node):
    return node.getState().contains(pyatspi.STATE_SHOWING)


def press(node):
    node.queryAction().doAction(0)


def extents(node):
    box = node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    return box.x, box.y, box.width, box.height


def inside(node, outer):
    """Whether node stands whole inside outer on the screen."""
    (x, y, w, h), (ox, oy, ow, oh) = extents(node), extents(outer)
    return w > 0 and h > 0 and ox <= x and oy <= y and x + w <= ox + ow and y + h <= oy + oh


# The keys the test presses, as X keysyms; a character stands for itself.
KEYS = {"Tab": 0xff09, "Shift+Tab": 0xfe20, "Return": 0xff0d, "Space": 0x20, "Down": 0xff54,
        "Escape": 0xff1b, "BackSpace": 0xff08}
X11, XTEST = ctypes.CDLL("libX11.so.6"), ctypes.CDLL("libXtst.so.6")
X11.XOpenDisplay.restype = ctypes.c_void_p
X11.XKeysymToKeycode.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
X11.XkbKeycodeToKeysym.argtypes = [ctypes.c_void_p, ctypes.c_ubyte, ctypes.c_int, ctypes.c_int]
X11.XkbKeycodeToKeysym.restype = ctypes.c_ulong
XTEST.XTestFakeKeyEvent.argtypes = [ctypes.c_void_p, ctypes.c_uint, ctypes.c_int, ctypes.c_ulong]


def key(keysym, ctrl=False):
    """Presses and lets go of a key, as the keyboard does, with Shift when the key's symbol asks
    for it and with Ctrl if asked."""
    keysym = KEYS.get(keysym, keysym)
    display = ctypes.c_void_p(X11.XOpenDisplay(None))
    code = X11.XKeysymToKeycode(display, keysym)
    held = [X11.XKeysymToKeycode(display, 0xffe3)] * ctrl  # Control_L
    if X11.XkbKeycodeToKeysym(display, code, 0, 0) != keysym:
        held.append(X11.XKeysymToKeycode(display, 0xffe1))  # Shift_L
    for down, codes in ((1, held + [code]), (0, [code] + held[::-1])):
        for each in codes:
            XTEST.XTestFakeKeyEvent(display, each, down, 0)
    X11.XCloseDisplay(display)


def read(path):
    return path.read_text(errors="replace") if path.exists() else ""


class Host(Session):
    def __init__(self, args):
        self.args, self.obs, self.app = args, None, None
        self.work = Path(args.work).resolve()
        self.run = self.work / "run"
        shutil.rmtree(self.run, ignore_errors=True)
        # The RTMP server gets a port beside the origin's, away from a streamer's own 1935.
        super().__init__(self.run, args.port, args.port + 1000)
        self.home = self.run / "home"
        self.obs_config = self.home / ".config/obs-studio"
        self.settings = self.home / ".config/Tessivane/OBS Plugin.conf"
        self.ca = ssl.create_default_context(cafile=SOURCE / "devservice/certs/dev-ca.pem")

    def prepare(self):
        """A private home with the module in OBS's per-user plug-in folder, unless a package
        installed it, and the service."""
        plugin = self.obs_config / "plugins/tessivane"
        self.obs_config.mkdir(parents=True)
        # With the first run behind OBS the auto-configuration wizard stays away. A scene with a
        # colour source and a small, light profile let a stream start cleanly on a virtual screen.
        # OBS 31 and later read these from user.ini, the ones before from global.ini.
        for name in ("global.ini", "user.ini"):
            (self.obs_config / name).write_text(
                "[General]\nFirstRun=true\n[Basic]\nProfile=Tessivane\nProfileDir=Tessivane\n"
                "SceneCollection=Tessivane\nSceneCollectionFile=Tessivane\n")
        self.profile = self.obs_config / "basic/profiles/Tessivane"
        self.profile.mkdir(parents=True)
        (self.profile / "basic.ini").write_text(
            "[General]\nName=Tessivane\n[Video]\nBaseCX=640\nBaseCY=360\nOutputCX=640\n"
            "OutputCY=360\nFPSCommon=30\n[SimpleOutput]\nVBitrate=1000\nUseAdvanced=true\n"
            "Preset=ultrafast\nx264Settings=keyint=30\n")
        (self.obs_config / "basic/scenes").mkdir(parents=True)
        (self.obs_config / "basic/scenes/Tessivane.json").write_text(json.dumps({
            "name": "Tessivane", "current_scene": "Scene", "current_program_scene": "Scene",
            "scene_order": [{"name": "Scene"}], "sources": [
                {"id": "scene", "versioned_id": "scene", "name": "Scene",
                 "settings": {"id_counter": 1, "items": [{"name": "Colour", "id": 1}]}},
                {"id": "color_source", "versioned_id": "color_source_v3", "name": "Colour",
                 "settings": {"color": 4283215696, "width": 640, "height": 360}}]}))
        if not self.args.installed:
            (plugin / "bin/64bit").mkdir(parents=True)
            shutil.copytree(SOURCE / "data", plugin / "data")
            shutil.copy2(self.args.module, plugin / "bin/64bit/tessivane.so")
        probe = self.obs_config / "plugins/tessivane-stall-probe/bin/64bit"
        probe.mkdir(parents=True)
        shutil.copy2(self.args.probe, probe)
        self.stalls, self.qt_warnings = self.run / "ui-stalls.txt", self.run / "qt-warnings.txt"
        for key in [k for k in os.environ if k.startswith(("XDG_", "WAYLAND", "QT_"))]:
            del os.environ[key]
        # Qt hands a file to the system through the first xdg-open on PATH; this one records it.
        self.tmp, self.opened, xdg_open = self.run / "tmp", self.run / "opened.txt", self.run / "bin"
        self.tmp.mkdir()
        xdg_open.mkdir()
        (xdg_open / "xdg-open").write_text(f'#!/bin/sh\necho "$@" >>"{self.opened}"\n')
        (xdg_open / "xdg-open").chmod(0o755)
        os.environ.update(HOME=str(self.home), LANG="C.UTF-8", TMPDIR=str(self.tmp),
                          PATH=f"{xdg_open}:{os.environ['PATH']}")
        line = self.start_service(self.args.dev_service)
        check(f"listening on https://127.0.0.1:{self.port}" in line,
              f"the development service runs: {line}")
        check(self.start_ingest(), f"the RTMP server takes connections on {self.rtmp_port}")

    def ask_service(self, path, token=None, body=None, **headers):
        """Status and JSON body of a GET to the development service, as a client of its own, or
        of a POST with a body."""
        request = urllib.request.Request(
            f"https://127.0.0.1:{self.port}{path}", data=body and json.dumps(body).encode(),
            headers={"Content-Type": "application/json", **headers,
                     **({"Authorization": f"Bearer {token}"} if token else {})})
        try:
            with urllib.request.urlopen(request, context=self.ca, timeout=10) as reply:
                return reply.status, json.load(reply)
        except urllib.error.HTTPError as error:
            return error.code, json.load(error)

    def streaming_service(self):
        """OBS's saved streaming service, the profile's service.json."""
        return json.loads((self.profile / "service.json").read_text())

    def start_obs(self):
        logs = self.obs_config / "logs"
        before = set(logs.glob("*.txt"))
        # Without a window manager OBS would keep the size of its .ui file; it gets the size it
        # takes on a desktop when nothing is saved, so that the docks stand as a streamer first
        # sees them.
        self.menu_items = {}
        self.obs = super().start_obs("--disable-shutdown-check", "--multi", "-qwindowgeometry",
                                     "%dx%d+0+0" % DEFAULT_SIZE, env=dict(
                                         os.environ, QT_QPA_PLATFORM="xcb",
                                         LIBGL_ALWAYS_SOFTWARE="1",
                                         TESSIVANE_STALL_LOG=str(self.stalls),
                                         TESSIVANE_QT_LOG=str(self.qt_warnings),
                                         QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1"))
        self.log = wait_for("OBS opens a new log file",
                            lambda: next(iter(set(logs.glob("*.txt")) - before)), 30)
        self.app = wait_for("OBS is on the accessibility bus", lambda: next(
            app for app in pyatspi.Registry.getDesktop(0)
            if app and app.get_process_id() == self.obs.pid), 40)
        wait_for(f"the log holds \"{LOADED}\"", lambda: LOADED in read(self.log), 30)
        # What a screen reader hears of this OBS, in a file of its own.
        self.heard = self.run / f"heard-{self.obs.pid}.txt"
        listener = self.start("listener", [sys.executable, Path(__file__).parent / "listen.py",
                                           self.heard, self.obs.pid], stdout=subprocess.PIPE)
        check(listener.stdout.readline() == b"listening\n", "a screen reader's ear is on the bus")

    def hearing(self, kind):
        """What was heard of a kind, "focus" or "announce", as pairs: (role, name) or
        (politeness, text)."""
        return [tuple(line.split("\t")[1:]) for line in read(self.heard).splitlines()
                if line.startswith(kind + "\t")]

    def focus(self):
        """The name of what has the keyboard focus, as a screen reader last heard it."""
        return (self.hearing("focus") or [("", "")])[-1][1]

    def press(self, keysym, focus=None, ctrl=False):
        """Presses a key; with focus, waits for a screen reader to hear the focus move there."""
        before = len(self.hearing("focus"))
        key(keysym, ctrl)
        if focus:
            wait_for(f"{keysym} moves the focus to \"{focus}\"", lambda: len(
                self.hearing("focus")) > before and self.focus() == focus)

    def announced(self, text, politeness="1"):
        wait_for(f"a screen reader hears \"{text}\"",
                 lambda: (politeness, text) in self.hearing("announce"))

    def window(self):
        return next(node for node in self.app
                    if node.getRoleName() == "frame" and node.name.startswith("OBS "))

    def dock(self, title):
        # A dock stands near the top of OBS's window, so the search goes breadth first; Qt 6.8
        # shows it as a frame, Qt 6.11 as a panel.
        with contextlib.suppress(Exception):
            return pyatspi.findDescendant(self.window(), lambda node: node.name == title and (
                node.getRoleName() in ("frame", "panel")), breadth_first=True)
        return None

    def menu_item(self, name):
        """An item of OBS's menus, looked up once per start of OBS: a search of the whole window
        costs seconds on a busy machine."""
        if name not in self.menu_items:
            self.menu_items[name] = find(self.window(), "menu item", name)[0]
        return self.menu_items[name]

    def body(self, title):
        """The dock's own widget: all of the dock but its title bar."""
        return next(node for node in self.dock(title) if node.getRoleName() == "filler")

    def shown(self, role, name=None, dock=DOCKS[0]):
        # A dock that OBS is still placing has no frame on the bus for a moment.
        frame = self.dock(dock)
        return [node for node in find(frame, role, name) if showing(node)] if frame else []

    def one(self, role, name=None, dock=DOCKS[0], timeout=30):
        """The one widget of a role and name that a dock shows, once it shows it."""
        return wait_for(f"\"{dock}\" shows the {role} \"{name or ''}\"",
                        lambda: self.shown(role, name, dock), timeout)[0]

    def focus_window(self):
        """Gives OBS's main window the keyboard. With no window manager on the virtual screen,
        keys go wherever X's input focus was left, perhaps on a pop-up that is gone."""
        window = re.search(r"Window id: (\w+)", subprocess.run(
            ["xwininfo", "-name", self.window().name], capture_output=True, text=True).stdout)[1]
        display = ctypes.c_void_p(X11.XOpenDisplay(None))
        X11.XSetInputFocus(display, ctypes.c_ulong(int(window, 16)), 2, 0)  # RevertToParent
        X11.XSync(display, 0)
        X11.XCloseDisplay(display)
        return int(window, 16)

    def answer(self, title, keysym):
        """Answers the box of that title with a key, and gives OBS's window back the keyboard
        once the box has gone, as a window manager would."""
        wait_for(f"the box \"{title}\" opens", lambda: any(
            node.name == title and showing(node) for node in self.app))
        self.press(keysym)
        wait_for(f"the box \"{title}\" closes", lambda: not any(
            node.name == title and showing(node) for node in self.app))
        self.focus_window()

    def type_into(self, edit, keys):
        """Types keys into a field, one at a time, and sees each land there; a key that went
        astray is typed again."""
        before = edit.queryText().getText(0, -1)
        for end in range(1, len(keys) + 1):
            wanted = before + keys[:end]
            typed = lambda: edit.queryText().getText(0, -1) == wanted
            for _ in range(3):
                key(ord(keys[end - 1]))
                if within(typed, 5):
                    break
                self.focus_window()
            check(typed(), f"the field reads \"{wanted}\"")

    @contextlib.contextmanager
    def alone(self, title):
        """The dock `title` with the column to itself: the other docks of the plug-in are closed
        from OBS's Docks menu, and opened again afterwards."""
        others = [other for other in DOCKS if other != title and showing(self.dock(other))]
        for other in others:
            press(self.menu_item(other))
        wait_for(f"\"{title}\" stands alone", lambda: not any(
            self.dock(other) and showing(self.dock(other)) for other in others))
        try:
            yield self.dock(title)
        finally:
            for other in others:
                press(self.menu_item(other))
            wait_for("the other docks are back", lambda: all(
                self.dock(other) and showing(self.dock(other)) for other in others))

    def look(self, title):
        """The dock's body has the docks' own look: the median colour of a screenshot of it is
        the dark green-black of their root, where green outweighs red and blue, not OBS's own
        grey-blue window colour, where blue outweighs green."""
        def median():
            pixels = self.pixels(self.body(title))
            return tuple(sorted(pixels[channel::3])[len(pixels) // 6] for channel in range(3))
        red, green, blue = wait_for(f"\"{title}\" has the docks' look", lambda: (
            colour := median())[1] > colour[0] + 4 and colour[1] >= colour[2] and colour)
        print(f"  the median colour of its body is rgb({red}, {green}, {blue})", flush=True)

    def pixels(self, node):
        """The node as the screen shows it, as bytes of red, green and blue."""
        x, y, width, height = extents(node)
        shot = self.run / "node.rgb"
        subprocess.run(["import", "-window", "root", "-crop", f"{width}x{height}+{x}+{y}",
                        "+repage", "-depth", "8", f"rgb:{shot}"], check=True)
        return shot.read_bytes()

    def ring(self, node):
        """How many of a control's pixels are nearly white, as a switch's focus ring is."""
        pixels = self.pixels(node)
        return sum(min(pixels[i:i + 3]) > 230 for i in range(0, len(pixels), 3))

    def screenshot(self, name):
        """A picture of OBS's window, as a streamer sees it."""
        x, y, width, height = extents(self.window())
        subprocess.run(["import", "-window", "root", "-crop", f"{width}x{height}+{x}+{y}",
                        "+repage", str(self.work / name)], check=True)

    def places(self):
        return {title: extents(self.dock(title)) for title in DOCKS}

    def exit_obs(self):
        """Ends OBS through File > Exit, the way that unloads modules; the places of the docks
        at that moment are kept in self.left."""
        self.left = self.places()
        with contextlib.suppress(Exception):  # OBS may be gone before it answers
            press(self.menu_item("Exit"))
        wait_for("OBS ends", lambda: self.obs.poll() is not None, 30)
        self.stop(self.obs)
        check(self.obs.returncode == 0, f"OBS ended with status {self.obs.returncode}")
        check(UNLOADED in read(self.log), f"the log holds \"{UNLOADED}\"")
        self.app = None

    def sign_in_form(self):
        """The Account dock's password and e-mail fields; the sign-in form shows exactly these."""
        fields = sorted(self.shown("text"), key=lambda field: field.getRoleName())
        check([f.getRoleName() for f in fields] == ["password text", "text"],
              "the Account dock shows a password and an e-mail field")
        return fields


