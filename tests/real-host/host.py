# SPDX-License-Identifier: GPL-2.0-or-later
"""What the real-host test drives OBS with: the host process and its private home, the
development service, and the accessibility bus."""

import contextlib
import json
import os
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


def check(condition, what):
    if not condition:
        raise AssertionError(f"check failed: {what}")
    print(f"  ok: {what}", flush=True)


def wait_for(what, probe, timeout=20):
    # Bus errors while a window is being built count as "not yet".
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        with contextlib.suppress(Exception):
            if result := probe():
                check(True, what)
                return result
        time.sleep(0.25)
    raise AssertionError(f"timed out after {timeout} s: {what}")


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
        self.stalls = self.run / "ui-stalls.txt"
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

    def ask_service(self, path, token=None, body=None):
        """Status and JSON body of a GET to the development service, as a client of its own, or
        of a POST with a body."""
        request = urllib.request.Request(
            f"https://127.0.0.1:{self.port}{path}", data=body and json.dumps(body).encode(),
            headers=dict(Authorization=f"Bearer {token}") if token else {})
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
        # Without a window manager OBS keeps the size of its .ui file; one as large as the screen
        # gives the docks room.
        self.obs = super().start_obs("--disable-shutdown-check", "--multi", "-qwindowgeometry",
                                     "1600x1000+0+0", env=dict(
                                         os.environ, QT_QPA_PLATFORM="xcb",
                                         LIBGL_ALWAYS_SOFTWARE="1",
                                         TESSIVANE_STALL_LOG=str(self.stalls),
                                         QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1"))
        self.log = wait_for("OBS opens a new log file",
                            lambda: next(iter(set(logs.glob("*.txt")) - before)), 30)
        self.app = wait_for("OBS is on the accessibility bus", lambda: next(
            app for app in pyatspi.Registry.getDesktop(0)
            if app and app.get_process_id() == self.obs.pid), 40)
        wait_for(f"the log holds \"{LOADED}\"", lambda: LOADED in read(self.log), 30)

    def window(self):
        return next(node for node in self.app
                    if node.getRoleName() == "frame" and node.name.startswith("OBS "))

    def dock(self, title):
        # Qt 6.8 shows a dock on the bus as a frame, Qt 6.11 as a panel.
        return next(iter(find(self.window(), ("frame", "panel"), title)), None)

    def shown(self, role, name=None, dock=DOCKS[0]):
        # A dock that OBS is still placing has no frame on the bus for a moment.
        frame = self.dock(dock)
        return [node for node in find(frame, role, name) if showing(node)] if frame else []

    @contextlib.contextmanager
    def alone(self, title):
        """The dock `title` with the column to itself: the other docks of the plug-in are closed
        from OBS's Docks menu, and opened again afterwards."""
        others = [other for other in DOCKS if other != title and showing(self.dock(other))]
        for other in others:
            press(find(self.window(), "menu item", other)[0])
        wait_for(f"\"{title}\" stands alone", lambda: not any(
            showing(self.dock(other)) for other in others))
        try:
            yield self.dock(title)
        finally:
            for other in others:
                press(find(self.window(), "menu item", other)[0])

    def screenshot(self, name):
        subprocess.run(["import", "-window", "root", str(self.work / name)], check=True)

    def exit_obs(self):
        """Ends OBS through File > Exit, the way that unloads modules."""
        with contextlib.suppress(Exception):  # OBS may be gone before it answers
            press(find(self.window(), "menu item", "Exit")[0])
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


