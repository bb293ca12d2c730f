# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Information dock in a real OBS, from the keyboard: the form filled, a category
search typed on while its suggestions are open and hold the keyboard, a suggestion picked, and the
form saved."""

import pyatspi

from host import DOCKS, check, find, showing, wait_for

DOCK = DOCKS[2]
TITLE, DESCRIPTION, TAGS = "Keyboard stream", "Made without a mouse", "keys, a11y"
SUMMARY = "Updated 2. @demostreamer: Instagram Live does not let apps set a title or category."


def suggestions(twitch):
    return [item.name for item in find(twitch, "list item") if showing(item)]


def retype(host, field, text, focus):
    """Tabs into a field, empties it and types text."""
    host.press("Tab", focus=focus)
    host.press(ord("a"), ctrl=True)
    host.press("BackSpace")
    wait_for(f"\"{focus}\" is empty", lambda: field.queryText().characterCount == 0)
    host.type_into(field, text)


def run(host):
    print("stream information: the form filled, \"ju\" typed into the Twitch box, then \"s\"",
          flush=True)
    for name in ("Remove @demostreamer", "Include Demo Streamer on Twitch",
                 "Remove Demo Streamer on Twitch"):
        host.press("Tab", focus=name)
    fields = {field.name: field for field in host.shown("text", dock=DOCK)}
    retype(host, fields["Title"], TITLE, "Title")
    retype(host, fields["Description"], DESCRIPTION, "Description")
    # Tab leaves the description both ways, and types no tab into it.
    host.press("Tab", focus="Tessivane go-live note")
    host.press("Shift+Tab", focus="Description")
    host.press("Tab", focus="Tessivane go-live note")
    with host.alone(DOCK):
        twitch = next(box for box in host.shown("combo box", dock=DOCK)
                      if box.description == "Twitch category")
        edit = find(twitch, "text")[0]
        check(edit.name == "Twitch category search", "the box's typing field is named")
        retype(host, edit, "ju", twitch.name)
        wait_for("the suggestions open on Just Chatting and Jump King, in this order",
                 lambda: suggestions(twitch) == ["Just Chatting", "Jump King"])
        host.announced("2 twitch category suggestions loaded.")
        host.type_into(edit, "s")
        wait_for("the suggestions narrow to Just Chatting",
                 lambda: suggestions(twitch) == ["Just Chatting"])
        host.announced("1 twitch category suggestions loaded.")
        host.look(DOCK)
        host.screenshot("stream-information.png")
        host.press("Return")
        wait_for("Return picks it and closes the suggestions", lambda: not twitch.getState(
        ).contains(pyatspi.STATE_EXPANDED) and edit.queryText().getText(0, -1) == "Just Chatting")
    host.press("Tab")
    retype(host, fields["Tags"], TAGS, "Tags")
    host.press("Tab", focus="Save Stream Information")
    host.press("Space")
    host.announced("Saving...")
    # Instagram takes no title: a failure, told at once.
    host.announced(SUMMARY, politeness="2")
    saved = host.ask_service("/api/stream-profile", host.token)[1]["profile"]
    check((saved["title"], saved["description"], saved["twitchCategory"], saved["tags"]) == (
        TITLE, DESCRIPTION, "Just Chatting", ["keys", "a11y"]), f"the service keeps {saved}")
