# SPDX-License-Identifier: GPL-2.0-or-later
"""The docks' layout in a real OBS: no text over another at three window sizes, with what must
stay in view in view, and the streamer's layout back after a restart, a closed dock staying
closed."""

import ctypes
from itertools import combinations

from host import DEFAULT_SIZE, DOCKS, X11, check, extents, inside, press, showing, wait_for, within

ACCOUNT, CHANNELS, STREAM_INFO, HEALTH, CHAT = DOCKS
# The smallest main window OBS 30.2.3 allows with the five docks stacked (WM_NORMAL_HINTS), and
# one as large as the virtual screen.
SMALLEST, FULL = (868, 763), (1600, 1000)
CONTROLS = {"push button", "button", "push button menu", "check box", "text", "password text",
            "combo box", "list"}


def resize(host, size):
    """Resizes OBS's main window the way a window manager would; the virtual screen has none."""
    display = ctypes.c_void_p(X11.XOpenDisplay(None))
    X11.XResizeWindow(display, ctypes.c_ulong(host.focus_window()), *size)
    X11.XCloseDisplay(display)
    wait_for(f"OBS's window is {size[0]}x{size[1]}", lambda: extents(host.window())[2:] == size)


def overlaps(nodes):
    boxes = [(node.name, extents(node)) for node in nodes]
    return [(a, b) for (a, (ax, ay, aw, ah)), (b, (bx, by, bw, bh)) in combinations(boxes, 2)
            if ax < bx + bw and bx < ax + aw and ay < by + bh and by < ay + ah]


def clipped(node):
    """Whether something around the node, a scroll area's viewport, hides some of it: what is
    scrolled out of sight stands over nothing."""
    area = node.parent
    while area is not None and area.name not in DOCKS:
        if not inside(node, area):
            return True
        area = area.parent
    return False


def in_view(host):
    """The Chat dock's send row and the Channels dock's heading and buttons stand whole inside
    their docks, however short the docks are."""
    wanted = [(CHAT, "combo box", None), (CHAT, "text", None), (CHAT, "button", "Send"),
              (CHANNELS, "label", "Your Channels"), (CHANNELS, "button menu", "+ Add Channel"),
              (CHANNELS, "button", "Refresh")]
    return all(inside(host.shown(role, name, dock)[0], host.body(dock))
               for dock, role, name in wanted)


def run(host):
    print("layout: no text over another at OBS's default size, its smallest and the screen's, "
          "with the send row and the channel buttons in view", flush=True)
    for size, name in ((DEFAULT_SIZE, "layout.png"), (SMALLEST, "layout-small.png"),
                       (FULL, "layout-full.png")):
        resize(host, size)
        # The docks settle after the window has changed its size.
        wait_for("no two of the five docks overlap",
                 lambda: not overlaps([host.dock(title) for title in DOCKS]))
        for title in DOCKS:
            wait_for(f"no two labels of \"{title}\" overlap", lambda: not overlaps(
                [label for label in host.shown("label", dock=title) if not clipped(label)]))
        wait_for("the send row and the channel buttons stand in view", lambda: in_view(host))
        if size == DEFAULT_SIZE:
            controls = [node for title in DOCKS for node in host.shown("", dock=title)
                        if node.getRoleName() in CONTROLS]
            check(all(node.name and (node.getRoleName() != "combo box" or node.description)
                      for node in controls), f"each of the {len(controls)} controls in view is "
                  "named for a screen reader, and each box says what it is for")
        host.screenshot(name)
    resize(host, DEFAULT_SIZE)
    wait_for("the five docks stand docked at the window's right edge", lambda: all(
        x + w == DEFAULT_SIZE[0] for x, _, w, _ in host.places().values()))


def restart(host):
    print("layout: a restart brings the docks back where they were; a closed one stays closed",
          flush=True)
    host.start_obs()
    if not within(lambda: all(showing(host.dock(title)) for title in DOCKS)
                  and host.places() == host.left, 30):
        check(False, f"the docks stand where they were: {host.left} -> {host.places()}")
    press(host.menu_item(CHAT))
    wait_for(f"\"{CHAT}\" is closed from the Docks menu", lambda: not showing(host.dock(CHAT)))
    host.exit_obs()
    host.start_obs()
    wait_for("after one more restart the other docks show", lambda: all(
        showing(host.dock(title)) for title in DOCKS[:-1]))
    check(not showing(host.dock(CHAT)), f"\"{CHAT}\" stays closed")
