# SPDX-License-Identifier: GPL-2.0-or-later
"""The Channels dock in a real OBS, from the keyboard: connecting a platform through the browser
from the instant pop-up menu, the cards in the Tab order, a channel selected and unselected, one
removed, with the focus kept through every rebuild of the list."""

import urllib.request

import pyatspi
from host import DOCKS, check, read, wait_for

DOCK = DOCKS[1]
CARDS = ["DemoStreamer", "Demo Streamer Gaming", "demostreamer", "Demo Streamer Page",
         "@demostreamer", "Demo Streamer on Twitch"]


def rebuilt_with_focus(host, name, action=None):
    """After action (or a poll), the list is built anew, and the focus is on the same channel's
    control, a new one: a screen reader hears it take the focus."""
    before = len(host.hearing("focus"))
    if action:
        action()
    wait_for(f"the rebuilt list gives the focus back to \"{name}\"", lambda: len(
        host.hearing("focus")) > before and host.focus() == name)


def tab_through(host, names, backwards=False):
    for name in names:
        host.press("Shift+Tab" if backwards else "Tab", focus=name)


def switched_on(host, name):
    return host.one("check box", name, DOCK).getState().contains(pyatspi.STATE_CHECKED)


def run(host):
    print("channels: Twitch connected from the menu, the cards walked, selected, removed", flush=True)
    tab_through(host, ["Sign Out", "+ Add Channel"])
    host.press("Space")
    host.press("Down", focus="Twitch")
    host.press("Return", focus="+ Add Channel")
    url = wait_for("the browser is handed Twitch's page", lambda: read(host.opened).strip())
    with urllib.request.urlopen(url, context=host.ca, timeout=10) as page:
        check("return to OBS" in page.read().decode(), f"the browser opens {url}")
    tab_through(host, ["Refresh"])
    host.press("Space")
    wait_for("Refresh shows the new channel", lambda: host.shown("label", CARDS[-1], DOCK))

    order = [f"{what} {name}" for name in CARDS for what in ("Include", "Remove")] + ["Title"]
    tab_through(host, order)
    tab_through(host, order[-2:3:-1], backwards=True)
    check(not switched_on(host, "Include demostreamer"), "demostreamer is left out at first")
    for state in (True, False):
        rebuilt_with_focus(host, "Include demostreamer", lambda: host.press("Space"))
        wait_for(f"the switch reads {'on' if state else 'off'}",
                 lambda: switched_on(host, "Include demostreamer") == state)
    rebuilt_with_focus(host, "Include demostreamer")  # by the 10 s poll

    tab_through(host, order[5:8])
    host.press("Space", focus="Cancel")
    host.answer("Remove Channel", ord("y"))
    wait_for("the removed card is gone", lambda: not host.shown("label", CARDS[3], DOCK))
    wait_for("and the focus is on the next card's", lambda: host.focus() == order[9])
    switch = host.one("check box", order[8], DOCK)
    unfocused = host.ring(switch)
    tab_through(host, order[8:9], backwards=True)
    check(host.ring(switch) > 10 * unfocused + 20, "the focused switch wears a ring")
    with host.alone(DOCK):
        host.look(DOCK)
        host.screenshot("channels.png")
