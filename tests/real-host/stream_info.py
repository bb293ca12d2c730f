# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Information dock in a real OBS: a category search typed on from the keyboard while
its suggestions are open and hold the keyboard."""

import pyatspi

from host import DOCKS, check, find, key, showing, wait_for

DOCK = DOCKS[2]


def suggestions(twitch):
    return [item.name for item in find(twitch, "list item") if showing(item)]


def run(host):
    print("stream information: \"ju\" typed into the Twitch box, then \"s\"", flush=True)
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
        wait_for("the suggestions open on Just Chatting and Jump King, in this order",
                 lambda: suggestions(twitch) == ["Just Chatting", "Jump King"])
        host.type_into(edit, "s")
        wait_for("the suggestions narrow to Just Chatting",
                 lambda: suggestions(twitch) == ["Just Chatting"])
        host.look(DOCK)
        host.screenshot("stream-information.png")
        key(0xff1b)  # Esc
        wait_for("Esc closes the suggestions", lambda: not twitch.getState().contains(
            pyatspi.STATE_EXPANDED))
        check(edit.queryText().getText(0, -1) == "jus", "and leaves \"jus\" in the box")
