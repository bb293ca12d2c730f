# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Information dock in a real OBS: the demo profile, a category search, a save."""

import subprocess

import pyatspi

from host import DOCKS, check, find, press, read, showing, wait_for

DOCK = DOCKS[2]
TITLE = "Celeste any% practice, then chat picks"
SUMMARY = ("Updated 2. @demostreamer: "
           "Instagram Live does not let apps set a title or category.")


def text(node):
    return node.queryText().getText(0, -1)


def run(host):
    print("stream information: the dock shows the demo profile", flush=True)
    title = wait_for("the title field holds the demo title", lambda: next(
        node for node in host.shown("text", "Title", DOCK) if text(node) == TITLE))
    twitch = host.shown("combo box", dock=DOCK)[0]
    check(twitch.name == "Celeste", "the Twitch box holds the demo category")

    print("stream information: typing \"ju\" into the Twitch box brings suggestions", flush=True)
    edit = find(twitch, "text")[0]
    edit.queryEditableText().setTextContents("")
    edit.queryComponent().grabFocus()
    for key in "ju":
        pyatspi.Registry.generateKeyboardEvent(ord(key), None, pyatspi.KEY_SYM)
    # The service logs the decoded path: the query shows in it only when its "?" came escaped.
    wait_for("the plug-in asked the service in its escaped form", lambda:
             "GET /api/categories?provider=twitch&q=ju 200" in read(host.run / "dev-service.log"))
    suggestions = wait_for("the pop-up opens on Just Chatting and Jump King", lambda: [
        item for item in find(twitch, "list item") if showing(item)])
    check([item.name for item in suggestions] == ["Just Chatting", "Jump King"],
          "in the service's order")
    check(text(edit) == "ju", "the typed text stays in the box")
    host.screenshot("stream-information-screen.png")
    # The dock alone, its pop-up open: the picture in docs/.
    x, y, width, height = host.dock(DOCK).queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    subprocess.run(["convert", host.work / "stream-information-screen.png", "-crop",
                    f"{width}x{height}+{x}+{y}", "+repage", host.work / "stream-information.png"],
                   check=True)
    # A click on a suggestion puts its name in the box.
    x, y, width, height = suggestions[0].queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
    pyatspi.Registry.generateMouseEvent(x + width // 2, y + height // 2, pyatspi.MOUSE_B1C)
    wait_for("a click on Just Chatting puts it in the box", lambda: text(edit) == "Just Chatting")

    print("stream information: Save pushes the form and sums up the channels' answers",
          flush=True)
    title.queryEditableText().setTextContents(" Chatting with the real host ")
    host.shown("text", "Tags", DOCK)[0].queryEditableText().setTextContents("real host, ,demo")
    press(host.shown("button", "Save Stream Information", DOCK)[0])
    wait_for("the status line sums up the save", lambda: host.shown("label", SUMMARY, DOCK))
    status, reply = host.ask_service("/api/stream-profile", host.token)
    profile = reply.get("profile", {})
    check(status == 200 and profile.get("title") == "Chatting with the real host"
          and profile.get("twitchCategory") == "Just Chatting"
          and profile.get("tags") == ["real host", "", "demo"],
          f"the service holds the saved profile {profile}")
