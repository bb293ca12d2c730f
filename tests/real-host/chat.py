# SPDX-License-Identifier: GPL-2.0-or-later
"""The Chat dock in a real OBS: the merged feed, and a message sent to one platform."""

import pyatspi

from host import DOCKS, check, extents, find, key, press, showing, wait_for, within

CHAT, TARGET, TEXT = DOCKS[4], "All YOUTUBE channels", "Hello from the real-host test"


def choose(host, combo, target):
    """Opens the target box and clicks the target's row: a click lands where it is aimed, where
    keys sent before the list holds the keyboard would move through the feed instead."""
    for _ in range(3):
        combo.queryAction().doAction(0)  # ShowMenu
        row = wait_for("the target box opens", lambda: next(
            node for node in find(combo, "list item", target) if showing(node)))
        x, y, width, height = extents(row)
        pyatspi.Registry.generateMouseEvent(x + width // 2, y + height // 2, pyatspi.MOUSE_B1C)
        if within(lambda: combo.name == target, 5):
            return
        key(0xff1b)  # Esc, in case the list is still open
    check(combo.name == target, f"the target box shows \"{target}\"")


def run(host):
    print("chat: the merged feed; a message to YouTube joins it", flush=True)
    with host.alone(CHAT):
        send = host.one("button", "Send", CHAT)
        wait_for("the feed shows the viewers' messages, and Send is enabled", lambda: len(
            host.shown("list item", dock=CHAT)) > 5 and send.getState().contains(
            pyatspi.STATE_ENABLED))
        choose(host, host.one("combo box", dock=CHAT), TARGET)
        host.one("text", dock=CHAT).queryEditableText().setTextContents(TEXT)
        press(send)
        wait_for("the message joins the feed, in view, under the streamer's name", lambda: host.shown(
            "list item", f"Demo Streamer Gaming • Demo Streamer: {TEXT}", CHAT))
        host.look(CHAT)
        host.screenshot("chat.png")
