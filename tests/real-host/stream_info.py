# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Information dock in a real OBS: the demo profile, a category search, a save."""

import pyatspi

from host import DOCKS, check, find, press, read, showing, wait_for

DOCK = DOCKS[2]
REFUSAL = "@demostreamer: Instagram Live does not let apps set a title or category."


def run(host):
    print("stream information: the demo profile; \"ju\" typed into the Twitch box", flush=True)
    twitch = wait_for("the Twitch box holds the demo category", lambda: next(
        box for box in host.shown("combo box", dock=DOCK) if box.name == "Celeste"))
    edit = find(twitch, "text")[0]
    edit.queryEditableText().setTextContents("")
    edit.queryComponent().grabFocus()
    # Keys typed before OBS's window has taken the focus would go nowhere.
    wait_for("the Twitch box has the focus", lambda: edit.getState().contains(
        pyatspi.STATE_FOCUSED))
    for key in "ju":
        pyatspi.Registry.generateKeyboardEvent(ord(key), None, pyatspi.KEY_SYM)
    # The service logs the decoded path: the query shows in it only when its "?" came escaped.
    wait_for("the plug-in asked the service in its escaped form", lambda:
             "GET /api/categories?provider=twitch&q=ju 200" in read(host.run / "dev-service.log"))
    wait_for("the pop-up opens on Just Chatting and Jump King, in this order", lambda: [
        item.name for item in find(twitch, "list item") if showing(item)] == [
        "Just Chatting", "Jump King"])
    host.screenshot("stream-information.png")
    found = host.ask_service("/api/categories%3Fprovider=kick&q=JUST%2520chat", host.token)[1]
    check(found["categories"][0]["name"] == "Just Chatting", "a blank escaped twice is found too")
    host.shown("text", "Title", DOCK)[0].queryEditableText().setTextContents(" Real host ")
    host.shown("text", "Tags", DOCK)[0].queryEditableText().setTextContents("real host, ,demo")
    # Every selected channel takes the update but Instagram's, which refuses.
    selected = sum(c["selected"] for c in host.ask_service("/api/channels", host.token)[1]["channels"])
    summary = f"Updated {selected - 1}. {REFUSAL}"
    press(host.shown("button", "Save Stream Information", DOCK)[0])
    wait_for(f"the status line reads \"{summary}\"", lambda: host.shown("label", summary, DOCK))
    profile = host.ask_service("/api/stream-profile", host.token)[1]["profile"]
    check((profile["title"], profile["twitchCategory"], profile["tags"]) == (
        "Real host", "ju", ["real host", "", "demo"]), f"the service holds the saved {profile}")
