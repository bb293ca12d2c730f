# SPDX-License-Identifier: GPL-2.0-or-later
"""The Channels dock in a real OBS: its cards, and connecting a platform through the browser from
the instant pop-up menu."""

import urllib.request

import pyatspi
from host import DOCKS, check, extents, inside, key, press, read, wait_for, within

DOCK = DOCKS[1]


def connect_twitch(host):
    """A click opens the instant pop-up menu, which the bus can neither open nor see into; Down
    and Return take its first entry, Twitch. Keys that went astray before the menu held the
    keyboard are typed again."""
    add = host.one("button menu", "+ Add Channel", DOCK)
    wait_for("the button stands whole inside the dock", lambda: inside(add, host.body(DOCK)))
    x, y, width, height = extents(add)
    for _ in range(3):
        host.focus_window()
        pyatspi.Registry.generateMouseEvent(x + width // 2, y + height // 2, pyatspi.MOUSE_B1C)
        wait_for("the menu is open", lambda: add.getState().contains(pyatspi.STATE_PRESSED))
        for keysym in (0xff54, 0xff0d):  # Down, Return
            key(keysym)
        if url := within(lambda: read(host.opened).strip(), 10):
            return url
        key(0xff1b)  # Esc, in case the menu is still open
    raise AssertionError("the browser was never handed an address")


def run(host):
    print("channels: the cards; connecting Twitch through the browser", flush=True)
    with host.alone(DOCK):
        for name in ("DemoStreamer", "Demo Streamer Gaming", "@demostreamer"):
            wait_for(f"a card for \"{name}\"", lambda: host.shown("label", name, DOCK))
        url = connect_twitch(host)
        with urllib.request.urlopen(url, context=host.ca, timeout=10) as page:
            check("return to OBS" in page.read().decode(), f"the browser opens {url}")
        press(host.one("button", "Refresh", DOCK))
        wait_for("Refresh shows the new channel",
                 lambda: host.shown("label", "Demo Streamer on Twitch", DOCK))
        host.look(DOCK)
        host.screenshot("channels.png")
