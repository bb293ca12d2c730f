# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Information dock in a real OBS: the demo profile, a category search typed on while
its suggestions are open, a save."""

import pyatspi

from host import DOCKS, check, find, key, press, read, showing, wait_for

DOCK = DOCKS[2]
REFUSAL = "@demostreamer: Instagram Live does not let apps set a title or category."


def suggestions(twitch):
    return [item.name for item in find(twitch, "list item") if showing(item)]


def run(host):
    print("stream information: the demo profile; \"jus\" typed into the Twitch box", flush=True)
    with host.alone(DOCK):
        twitch = wait_for("the Twitch box holds the demo category", lambda: next(
            box for box in host.shown("combo box", dock=DOCK) if box.name == "Celeste"))
        edit = find(twitch, "text")[0]
        edit.queryEditableText().setTextContents("")
        host.focus_window()
        edit.queryComponent().grabFocus()
        wait_for("the Twitch box has the focus", lambda: edit.getState().contains(
            pyatspi.STATE_FOCUSED))
        host.type_into(edit, "ju")
        # The service logs the decoded path: the query shows in it only when its "?" came escaped.
        wait_for("the plug-in asked the service in its escaped form", lambda:
                 "GET /api/categories?provider=twitch&q=ju 200" in read(host.run / "dev-service.log"))
        wait_for("the suggestions open on Just Chatting and Jump King, in this order",
                 lambda: suggestions(twitch) == ["Just Chatting", "Jump King"])
        # The open list holds the keyboard; the next key still goes into the box and searches.
        host.type_into(edit, "s")
        wait_for("the suggestions narrow to Just Chatting",
                 lambda: suggestions(twitch) == ["Just Chatting"])
        wait_for("the status line says so", lambda: host.shown(
            "label", "1 twitch category suggestions loaded.", DOCK))
        host.look(DOCK)
        host.screenshot("stream-information.png")
        key(0xff1b)  # Esc closes the list and leaves the typed text
        wait_for("Esc closes the suggestions", lambda: not twitch.getState().contains(
            pyatspi.STATE_EXPANDED))
        check(edit.queryText().getText(0, -1) == "jus", "the box keeps \"jus\"")

        found = host.ask_service("/api/categories%3Fprovider=kick&q=JUST%2520chat", host.token)[1]
        check(found["categories"][0]["name"] == "Just Chatting", "a blank escaped twice is found")
        host.one("text", "Title", DOCK).queryEditableText().setTextContents(" Real host ")
        host.one("text", "Tags", DOCK).queryEditableText().setTextContents("real host, ,demo")
        # Every selected channel takes the update but Instagram's, which refuses.
        selected = sum(c["selected"] for c in host.ask_service("/api/channels", host.token)[1][
            "channels"])
        summary = f"Updated {selected - 1}. {REFUSAL}"
        press(host.one("button", "Save Stream Information", DOCK))
        wait_for(f"the status line reads \"{summary}\"", lambda: host.shown("label", summary, DOCK))
        profile = host.ask_service("/api/stream-profile", host.token)[1]["profile"]
        check((profile["title"], profile["twitchCategory"], profile["tags"]) == (
            "Real host", "jus", ["real host", "", "demo"]), f"the service holds the saved {profile}")
