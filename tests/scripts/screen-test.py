#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""The virtual screen that scripts/run gives OBS where there is no desktop takes the clients that
hold its cookie, and no other: not one without the cookie, nor another user given the session's
Xauthority file, which is its user's alone.

    screen-test.py DISPLAY"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "scripts"))
from obs_session import Session  # noqa: E402


def main():
    with tempfile.TemporaryDirectory() as logs:
        # A folder that every user may look into, as a checkout's build folder usually is.
        os.chmod(logs, 0o755)
        session = Session(logs, port=0)
        try:
            screen = session.start_screen(int(sys.argv[1]))
            nothing = Path(logs, "nothing")
            nothing.touch()

            def taken(*user, **env):
                # HOME holds no .Xauthority to fall back on.
                env = {**os.environ, "HOME": logs, "DISPLAY": screen["DISPLAY"], **env}
                return subprocess.run([*user, "xdpyinfo"], env=env, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL).returncode == 0
            wrong = ["the screen did not start"] if not screen else [
                f"{who} is {'' if was else 'not '}taken" for who, was, expected in [
                    ("a client with the session's environment", taken(**screen), True),
                    ("a client without the cookie", taken(XAUTHORITY=str(nothing)), False),
                    ("another user with the session's Xauthority file",
                     taken(SOURCE / "scripts/as-user", "65534", "65534", **screen), False),
                ] if was != expected]
        finally:
            session.close()
        print("\n".join(wrong) or "only the session's clients are taken")
        if wrong:
            print(Path(logs, "xvfb.log").read_text())
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
