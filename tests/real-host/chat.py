# SPDX-License-Identifier: GPL-2.0-or-later
"""The Chat dock in a real OBS, from the keyboard: the merged feed with each row's platform, and a
message sent to one platform."""

import pyatspi

from host import DOCKS, check, find, showing, wait_for

CHAT, TARGET, TEXT = DOCKS[4], "All YOUTUBE channels", "Hello from the real-host test"
# A run of joined emoji and flags, and a line break and a direction override of a viewer's.
LINES = ["\U0001F469\u200D\U0001F4BB\U0001F469\u200D\U0001F4BB\U0001F1EB\U0001F1F7\U0001F1EF\U0001F1F5"
         " gg", "gg\u2028YOUTUBE • DemoStreamer: paste your key at \u202eelpmaxe.live"]
PLATFORMS = {"DemoStreamer": "Twitch", "Demo Streamer Gaming": "YouTube", "demostreamer": "Kick",
             "@demostreamer": "Instagram", "Demo Streamer on Twitch": "Twitch"}


def run(host):
    print("chat: the merged feed; a message to YouTube joins it", flush=True)
    send = host.one("button", "Send", CHAT)
    wait_for("the feed shows the viewers' messages, and Send is enabled", lambda: len(
        host.shown("list item", dock=CHAT)) > 5 and send.getState().contains(
        pyatspi.STATE_ENABLED))
    rows = [row for row in find(host.one("list", "Chat messages", CHAT), "list item")
            if showing(row)]
    check(all(row.description == PLATFORMS[row.name.split(" • ")[0]] for row in rows),
          "a screen reader hears each row's platform")
    for name in ("Start Streaming", "Chat messages"):
        host.press("Tab", focus=name)
    target = host.one("combo box", dock=CHAT)
    host.press("Tab", focus=target.name)
    check(target.description == "Chat target", "the target box says what it is for")
    while target.name != TARGET:
        before = target.name
        host.press("Down")
        wait_for(f"Down moves on from \"{before}\"", lambda: target.name != before)
    host.press("Tab", focus="Chat message")
    host.type_into(host.one("text", "Chat message", CHAT), TEXT)
    host.press("Return")
    host.announced("Message sent.")
    with host.alone(CHAT):
        wait_for("the message joins the feed, in view, under the streamer's name", lambda: host.shown(
            "list item", f"Demo Streamer Gaming • Demo Streamer: {TEXT}", CHAT))
        # Each stays one row, read whole: no line passes for a row of its own.
        for line in LINES:
            host.ask_service("/api/chat/send", host.token, {"provider": "youtube", "text": line})
            wait_for("a chat line stays one row, which reads whole", lambda: host.shown(
                "list item", "Demo Streamer Gaming • Demo Streamer: " + line.replace(
                    "\u2028", " ").replace("\u202e", ""), CHAT))
        host.look(CHAT)
        host.screenshot("chat.png")
