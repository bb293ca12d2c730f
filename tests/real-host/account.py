# SPDX-License-Identifier: GPL-2.0-or-later
"""The Account dock in a real OBS, from the keyboard: signing in, checking for updates, a restart
with the session, signing out."""

import re

from host import DOCKS, check, read, showing, wait_for

EMAIL, PASSWORD, NAME = "demo@tessivane.dev", "tessivane-demo", "Demo Streamer"


def sign_in(host):
    """Signs in with the demo account, the focus given to the e-mail field and keys from there;
    leaves the session token in host.token."""
    print("account: the five docks stand signed out, and the demo account signs in", flush=True)
    wait_for("the five docks are showing", lambda: all(showing(host.dock(t)) for t in DOCKS))
    password, email = host.sign_in_form()
    check((email.name, email.description, password.name) == ("E-mail", "Email address",
                                                             "Password"),
          "the fields are named, and keep their placeholders as descriptions")
    host.screenshot("docks.png")
    host.focus_window()
    email.queryComponent().grabFocus()
    wait_for("the e-mail field has the focus", lambda: host.focus() == "E-mail")
    host.type_into(email, EMAIL)
    host.press("Tab", focus="Password")
    for letter in PASSWORD:
        host.press(ord(letter))
    wait_for("the password is typed", lambda: password.queryText().characterCount == 14)
    host.press("Return")
    host.announced("Signing in...")
    host.announced(f"Signed in as {NAME}.")
    wait_for("the focus goes on to the account page", lambda: host.focus() == "Manage Account")
    with host.alone(DOCKS[0]):
        host.look(DOCKS[0])
        host.screenshot("account.png")
    host.token = wait_for("the settings file holds sessionToken", lambda: re.search(
        r"^sessionToken=(\S+)", read(host.settings), re.M))[1]

    print("account: Check for Updates from the keyboard keeps the focus off Sign Out", flush=True)
    host.press("Tab", focus="Check for Updates")
    # The check of the timer, 10 s after the start, is behind: it would take the manual one's
    # box away.
    wait_for("the timer's first check is behind", lambda: "GET /api/plugin/releases/latest" in read(
        host.run / "dev-service.log"))
    heard = len(host.hearing("focus"))
    host.press("Space", focus="OK")
    host.announced("Tessivane OBS Plugin v0.3.3 is up to date.")
    host.answer("Tessivane Updates", "Return")
    wait_for("the focus comes back to Check for Updates",
             lambda: host.focus() == "Check for Updates")
    check("Sign Out" not in [name for _, name in host.hearing("focus")[heard:]],
          "and never went to Sign Out meanwhile")


def sign_out(host):
    """After a restart: the session was restored, and Sign Out forgets it."""
    print("account: a restart restores the session, and Sign Out forgets it", flush=True)
    wait_for(f"the restored session shows \"{NAME}\"", lambda: host.shown("label", NAME))
    host.focus_window()
    host.one("button", "Sign Out").queryComponent().grabFocus()
    host.press("Space")
    host.announced("Signed out.")
    wait_for("Sign Out brings the sign-in form back", lambda: host.shown("button", "Sign In"))
    host.sign_in_form()
    wait_for("the settings file no longer holds sessionToken",
             lambda: "sessionToken" not in read(host.settings))
    check(host.ask_service("/api/me", host.token)[0] == 401, "the service ended the session")
    host.exit_obs()
