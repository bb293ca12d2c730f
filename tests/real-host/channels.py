# SPDX-License-Identifier: GPL-2.0-or-later
"""The Channels dock in a real OBS: cards, a switch, removal, connecting through the browser."""

import contextlib
import urllib.request

import pyatspi
from gi.repository import GLib
from host import DOCKS, check, extents, find, inside, key, press, read, wait_for, within

DOCK = DOCKS[1]


def channels(host):
    return {c["name"]: c for c in host.ask_service("/api/channels", host.token)[1]["channels"]}


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
    print("channels: cards, a switch, removal, connecting Twitch through the browser", flush=True)
    with host.alone(DOCK):
        for name in channels(host):
            wait_for(f"a card for \"{name}\"", lambda: host.shown("label", name, DOCK))
        wait_for("the count line reads 3 of 5", lambda: host.shown("label", "3 of 5 selected", DOCK))
        press(host.one("check box", "Include demostreamer", DOCK))
        wait_for("the service has it selected", lambda: channels(host)["demostreamer"]["selected"])
        wait_for("the count line follows", lambda: host.shown("label", "4 of 5 selected", DOCK))

        # OBS answers the bus only once the box it opens closes: the press times out meanwhile.
        with contextlib.suppress(GLib.Error):
            press(host.one("button", "Remove Demo Streamer Page", DOCK))
        box = wait_for("the box asks", lambda: find(host.app, "alert", "Remove Channel")[0])
        press(wait_for("with Yes", lambda: find(box, "button", "Yes")[0]))
        wait_for("the card is gone", lambda: not host.shown("label", "Demo Streamer Page", DOCK))
        check("Demo Streamer Page" not in channels(host), "and so is the channel on the service")

        url = connect_twitch(host)
        check(url, "the browser is handed an address")
        with urllib.request.urlopen(url, context=host.ca, timeout=10) as page:
            check("return to OBS" in page.read().decode(), f"{url} says to return to OBS")
        press(host.one("button", "Refresh", DOCK))
        # Sooner than the 10-second poll would.
        wait_for("Refresh shows the new channel",
                 lambda: host.shown("label", "Demo Streamer on Twitch", DOCK), 8)
        host.look(DOCK)
        host.screenshot("channels.png")
