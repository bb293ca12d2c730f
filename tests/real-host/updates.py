# SPDX-License-Identifier: GPL-2.0-or-later
"""Updates in a real OBS: Check for Updates finds a newer release, Yes downloads it, and only a
verified installer lands in the temporary folder and is handed to the system."""

import hashlib
import shutil

from host import check, find, press, read, wait_for

QUESTION = ("Tessivane OBS Plugin 0.3.4 is available.\n\n"
            "Download the verified installer and begin the update now?")
MISMATCH = ("The installer checksum did not match the signed release metadata. "
            "Nothing was installed.")


def answer(host, text, button, screenshot=None):
    box = wait_for(f"a box asks or says \"{text.splitlines()[0]}\"", lambda: next(
        node for node in host.app if node.getRoleName() in ("alert", "dialog")
        and find(node, "label", text)))
    if screenshot:
        host.screenshot(screenshot)
    press(wait_for(f"with {button}", lambda: find(box, "button", button)[0]))


def check_for_updates(host, release):
    """Restarts the service with the session kept, offering this kind of release; Yes to it."""
    check("listening" in host.start_service(host.args.dev_service, "--resume-session", host.token,
                                            "--release", release), f"the service offers {release}")
    press(host.one("button", "Check for Updates"))
    answer(host, QUESTION, "Yes", f"update-{release}.png")
    return host.ask_service("/api/plugin/releases/latest/macos")[1]


def run(host):
    print("updates: the check 10 s after start finds this version current", flush=True)
    # It must be behind us before the service offers more: its question would come in between.
    wait_for("the Account dock says so", lambda: host.shown(
        "label", "Tessivane OBS Plugin v0.3.3 is up to date."), 40)
    print("updates: a newer release is found, downloaded, verified and opened", flush=True)
    release = check_for_updates(host, "newer")
    installer = host.tmp / "TessivaneUpdates" / release["name"]
    wait_for("the label says it is verified",
             lambda: host.shown("label", "Update verified. Opening installer..."))
    host.screenshot("update-verified.png")
    check(hashlib.sha256(installer.read_bytes()).hexdigest() == release["sha256"],
          f"{installer} has the served digest")
    wait_for("it is handed to the system", lambda: installer.as_uri() in read(host.opened))

    print("updates: with a wrong digest nothing is written", flush=True)
    shutil.rmtree(installer.parent)
    check_for_updates(host, "wrong-digest")
    answer(host, MISMATCH, "OK", "update-wrong-digest-box.png")
    wait_for("the label says so", lambda: host.shown("label", "Update verification failed."))
    check(not installer.parent.exists(), "TessivaneUpdates was not even made")
    check("listening" in host.start_service(host.args.dev_service, "--resume-session", host.token),
          "the service offers the current version again")
