# SPDX-License-Identifier: GPL-2.0-or-later
"""The Chat dock in a real OBS: the merged feed with its badges, and a message sent to one
platform."""

import subprocess

import pyatspi

from host import DOCKS, check, find, press, showing, wait_for

CHAT, TARGET, TEXT = DOCKS[4], "All YOUTUBE channels", "Hello from the real-host test"
BADGES = {"youtube": "#FF0033", "twitch": "#9146FF", "kick": "#53FC18", "instagram": "#34E6BD"}


def run(host):
    print("chat: the merged feed shows with badges; a message to YouTube joins it", flush=True)
    with host.alone(CHAT) as dock:
        send_to_youtube(host, dock.queryComponent().getExtents)


def send_to_youtube(host, extents):
    send = wait_for("the Send button shows", lambda: host.shown("button", "Send", CHAT))[0]
    wait_for("the feed shows the viewers' messages, and Send is enabled", lambda: len(
        host.shown("list item", dock=CHAT)) > 5 and send.getState().contains(pyatspi.STATE_ENABLED))

    combo = host.shown("combo box", dock=CHAT)[0]
    combo.queryAction().doAction(0)  # ShowMenu; its list opens on the first row
    rows = wait_for("the target box opens", lambda: [n.name for n in find(combo, "list item")
                                                     if showing(n)], 5)
    for key in [0xff54] * rows.index(TARGET) + [0xff0d]:  # Down to the target, Return
        pyatspi.Registry.generateKeyboardEvent(key, None, pyatspi.KEY_SYM)
    wait_for(f"the target box shows \"{TARGET}\"", lambda: combo.name == TARGET, 5)
    host.shown("text", dock=CHAT)[0].queryEditableText().setTextContents(f"  {TEXT} ")
    press(send)
    wait_for("the message joins the feed, in view, under the streamer's name", lambda: host.shown(
        "list item", f"Demo Streamer Gaming • Demo Streamer: {TEXT}", CHAT))
    feed = host.ask_service("/api/chat/messages", host.token)[1]["messages"]
    check([m["provider"] for m in feed if m["text"] == TEXT] == ["youtube"], "for YouTube alone")

    host.screenshot("chat.png")
    path = str(host.work / "chat.png")
    x, y, width, height = extents(0)
    colours = subprocess.run(["convert", path, "-crop", f"{width}x{height}+{x}+{y}", "+repage",
                              "-write", path, "-unique-colors", "txt:-"], check=True,
                             capture_output=True, text=True).stdout
    platforms = {platform for platform, colour in BADGES.items() if f" {colour} " in colours}
    check("youtube" in platforms and len(platforms) > 1, f"the feed shows badges of {platforms}")
