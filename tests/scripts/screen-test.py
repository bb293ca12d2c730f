#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""The virtual screen that scripts/run gives OBS takes the clients that hold its cookie, and no
other.

    screen-test.py DISPLAY"""

import os
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "scripts"))
from obs_session import Session  # noqa: E402

with tempfile.TemporaryDirectory() as logs:
    session = Session(logs, port=0)
    try:
        screen = session.start_screen(int(sys.argv[1])) or sys.exit("the screen did not start")
        Path(logs, "none").touch()
        # A client's view, with a HOME that holds no .Xauthority to fall back on.
        taken = lambda **env: subprocess.run(["xdpyinfo"], capture_output=True, env={
            **os.environ, "HOME": logs, "DISPLAY": screen["DISPLAY"], **env}).returncode == 0
        wrong = [fault for fault, expected, was in [
            ("a client with the session's environment is refused", True, taken(**screen)),
            ("a client without the cookie is taken", False, taken(XAUTHORITY=f"{logs}/none")),
        ] if was != expected]
    finally:
        session.close()
sys.exit("\n".join(wrong) or None)
