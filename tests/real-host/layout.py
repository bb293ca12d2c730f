# SPDX-License-Identifier: GPL-2.0-or-later
"""The docks' layout in a real OBS: no text over another at three window sizes, and the
streamer's layout back after a restart, a closed dock staying closed."""

import ctypes
import re
import subprocess
from itertools import combinations

import pyatspi

from host import DOCKS, check, find, press, showing, wait_for

# Sizes of OBS's main window measured in OBS 30.2.3: the one it takes when nothing is saved and no
# window manager steps in, the smallest it allows with the five docks stacked (WM_NORMAL_HINTS),
# and the one that the other steps run at.
DEFAULT, SMALLEST, FULL = (1086, 763), (868, 763), (1600, 1000)


def extents(node):
    box = node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    return box.x, box.y, box.width, box.height


def places(host):
    return {title: extents(host.dock(title)) for title in DOCKS}


def resize(host, size):
    """Resizes OBS's main window the way a window manager would; the virtual screen has none."""
    window = re.search(r"Window id: (\w+)", subprocess.run(
        ["xwininfo", "-name", host.window().name], capture_output=True, text=True).stdout)[1]
    x11 = ctypes.CDLL("libX11.so.6")
    x11.XOpenDisplay.restype = ctypes.c_void_p
    display = ctypes.c_void_p(x11.XOpenDisplay(None))
    x11.XResizeWindow(display, ctypes.c_ulong(int(window, 16)), *size)
    x11.XCloseDisplay(display)
    wait_for(f"OBS's window is {size[0]}x{size[1]}", lambda: extents(host.window())[2:] == size)


def apart(what, nodes):
    boxes = [(node.name, extents(node)) for node in nodes]
    over = [(a, b) for (a, (ax, ay, aw, ah)), (b, (bx, by, bw, bh)) in combinations(boxes, 2)
            if ax < bx + bw and bx < ax + aw and ay < by + bh and by < ay + ah]
    check(not over, f"no two of the {len(boxes)} {what} overlap {over}")


def run(host):
    print("layout: no text overlaps another at the steps' size, OBS's default or its smallest",
          flush=True)
    for size, name in ((FULL, "layout-full.png"), (DEFAULT, "layout.png"),
                       (SMALLEST, "layout-small.png")):
        resize(host, size)
        apart("docks", [host.dock(title) for title in DOCKS])
        for title in DOCKS:
            apart(f"labels of \"{title}\"", host.shown("label", dock=title))
        host.screenshot(name)
    resize(host, FULL)
    host.places = wait_for("the five docks stand docked at the window's right edge", lambda: (
        found := places(host)) and all(x + w == FULL[0] for x, _, w, _ in found.values()) and found)


def restart(host):
    print("layout: a restart brings the docks back where they were; a closed one stays closed",
          flush=True)
    host.start_obs()
    wait_for("the five docks show at the places they had", lambda: all(
        showing(host.dock(title)) for title in DOCKS) and places(host) == host.places, 30)
    press(find(host.window(), "menu item", DOCKS[-1])[0])
    wait_for(f"\"{DOCKS[-1]}\" is closed from the Docks menu",
             lambda: not showing(host.dock(DOCKS[-1])))
    host.exit_obs()
    host.start_obs()
    wait_for("after one more restart the other docks show", lambda: all(
        showing(host.dock(title)) for title in DOCKS[:-1]), 30)
    check(not showing(host.dock(DOCKS[-1])), f"\"{DOCKS[-1]}\" stays closed")
