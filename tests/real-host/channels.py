# SPDX-License-Identifier: GPL-2.0-or-later
"""The Channels dock in a real OBS: cards, a switch, removal, connecting through the browser."""

import contextlib
import os
import urllib.request

import pyatspi
from gi.repository import GLib
from host import DOCKS, check, find, press, read, wait_for

DOCK = DOCKS[1]


def channels(host):
    return {c["name"]: c for c in host.ask_service("/api/channels", host.token)[1]["channels"]}


def run(host):
    print("channels: cards, a switch, removal, connecting Twitch through the browser", flush=True)
    for name in channels(host):
        wait_for(f"a card for \"{name}\"", lambda: host.shown("label", name, DOCK))
    wait_for("the count line reads 3 of 5", lambda: host.shown("label", "3 of 5 selected", DOCK))
    press(host.shown("check box", "Include demostreamer", DOCK)[0])
    wait_for("the service has it selected", lambda: channels(host)["demostreamer"]["selected"])
    wait_for("the count line follows", lambda: host.shown("label", "4 of 5 selected", DOCK))

    # OBS answers the bus only once the box it opens closes: the press times out meanwhile.
    with contextlib.suppress(GLib.Error):
        press(host.shown("button", "Remove Demo Streamer Page", DOCK)[0])
    box = wait_for("the box asks", lambda: find(host.app, "alert", "Remove Channel")[0])
    press(find(box, "button", "Yes")[0])
    wait_for("the card is gone", lambda: not host.shown("label", "Demo Streamer Page", DOCK))
    check("Demo Streamer Page" not in channels(host), "and so is the channel on the service")

    # Stacked among the others, the dock may show only the top of its buttons: a click has to
    # land on one, so the dock takes the column to itself.
    with host.alone(DOCK):
        # The bus can neither open an instant pop-up menu nor see its entries: a click opens it,
        # and Down and Return take its first entry, Twitch.
        add = host.shown("button menu", "+ Add Channel", DOCK)[0]
        extents = lambda node: node.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
        x, y, width, height = wait_for("the button stands whole inside the dock", lambda: (
            box := extents(add)).y + box.height < (dock := extents(host.dock(DOCK))).y
            + dock.height and box)
        pyatspi.Registry.generateMouseEvent(x + width // 2, y + height // 2, pyatspi.MOUSE_B1C)
        wait_for("the menu is open", lambda: add.getState().contains(pyatspi.STATE_PRESSED))
        for keysym in (0xff54, 0xff0d):
            pyatspi.Registry.generateKeyboardEvent(keysym, None, pyatspi.KEY_SYM)
        url = wait_for("the browser is handed an address", lambda: read(host.opened).strip())
        with urllib.request.urlopen(url, context=host.ca, timeout=10) as page:
            check("return to OBS" in page.read().decode(), f"{url} says to return to OBS")
        press(host.shown("button", "Refresh", DOCK)[0])
        # Sooner than the 10-second poll would.
        wait_for("Refresh shows the new channel",
                 lambda: host.shown("label", "Demo Streamer on Twitch", DOCK), 5)

        host.screenshot("channels.png")
