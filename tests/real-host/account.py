# SPDX-License-Identifier: GPL-2.0-or-later
"""The Account dock in a real OBS: signing in, a restart with the session, signing out."""

import re

from host import DOCKS, check, press, read, showing, wait_for

EMAIL, PASSWORD, NAME = "demo@tessivane.dev", "tessivane-demo", "Demo Streamer"


def sign_in(host):
    """Signs in with the demo account; leaves the session token in host.token."""
    print("account: the five docks stand signed out, and the demo account signs in", flush=True)
    wait_for("the five docks are showing", lambda: all(showing(host.dock(t)) for t in DOCKS))
    password, email = host.sign_in_form()
    host.screenshot("docks.png")
    email.queryEditableText().setTextContents(EMAIL)
    password.queryEditableText().setTextContents(PASSWORD)
    press(host.one("button", "Sign In"))
    wait_for(f"the account page shows \"{NAME}\"", lambda: host.shown("label", NAME))
    with host.alone(DOCKS[0]):
        host.look(DOCKS[0])
        host.screenshot("account.png")
    host.token = wait_for("the settings file holds sessionToken", lambda: re.search(
        r"^sessionToken=(\S+)", read(host.settings), re.M))[1]


def sign_out(host):
    """After a restart: the session was restored, and Sign Out forgets it."""
    print("account: a restart restores the session, and Sign Out forgets it", flush=True)
    wait_for(f"the restored session shows \"{NAME}\"", lambda: host.shown("label", NAME))
    press(host.one("button", "Sign Out"))
    wait_for("Sign Out brings the sign-in form back", lambda: host.shown("button", "Sign In"))
    host.sign_in_form()
    wait_for("the settings file no longer holds sessionToken",
             lambda: "sessionToken" not in read(host.settings))
    check(host.ask_service("/api/me", host.token)[0] == 401, "the service ended the session")
    host.exit_obs()
