#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""Runs the built module inside a real OBS Studio and drives it as a streamer would, through the
accessibility bus, one dock after the other. Run it under xvfb-run and dbus-run-session, as CTest
does."""

import argparse
import contextlib
import sys
import traceback
from pathlib import Path

import account
import channels
import chat
import faults
import health
import layout
import leaks
import stream_info
from host import Host, check, find, read


def run(host):
    host.prepare()
    host.start_obs()
    if host.args.installed:
        check(host.args.installed in read(Path(f"/proc/{host.obs.pid}/maps")),
              f"OBS loaded the module from {host.args.installed}")
    # The job is done from the keyboard, in the order Tab walks the docks.
    account.sign_in(host)
    channels.run(host)
    stream_info.run(host)
    chat.run(host)
    layout.run(host)
    health.start(host)
    leaks.secrets_in_place(host, signed_in=True)
    faults.run(host)
    health.stop(host)
    # Each result the streamer asked for was told, and nothing else: no poll, no sample, no
    # failure of a request the streamer never made.
    said = [("!" if politeness == "2" else "") + text for politeness, text in
            host.hearing("announce")]
    check(said == ["Signing in...", "Signed in as Demo Streamer.",
                   "Tessivane OBS Plugin v0.3.3 is up to date.",
                   "2 twitch category suggestions loaded.", "1 twitch category suggestions loaded.",
                   "Saving...", "!" + stream_info.SUMMARY, "Message sent.",
                   "!Send chat: Connection refused"],
          f"a screen reader heard what the streamer asked for, and nothing else: {said}")
    faults.exit_while_held(host)
    layout.restart(host)
    account.sign_out(host)
    leaks.secrets_in_place(host, signed_in=False)
    # The accessibility bridge and Qt's accessible lists warn when the test asks for a widget or
    # a row that has gone meanwhile (a poll rebuilds the lists).
    warnings = [line for line in read(host.qt_warnings).splitlines()
                if not line.startswith(("qt.accessibility.atspi: ", "default: QAccessible"))]
    check(not warnings, f"Qt warned of nothing the plug-in did in the whole run {warnings}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    module = parser.add_mutually_exclusive_group(required=True)
    module.add_argument("--module", help="the built tessivane.so, for OBS's per-user folder")
    module.add_argument("--installed", help="the tessivane.so a package installed for OBS")
    parser.add_argument("--dev-service", required=True, help="the tessivane-dev-service binary")
    parser.add_argument("--probe", required=True, help="the built tessivane-stall-probe.so")
    parser.add_argument("--port", type=int, required=True, help="port of the service origin")
    parser.add_argument("--work", required=True, help="folder for screenshots and logs")
    host = Host(parser.parse_args())
    try:
        run(host)
        print("PASS")
        return 0
    except Exception as failure:
        print(f"FAIL: {failure!r}; logs in {host.run}")
        traceback.print_exc(file=sys.stdout)
        with contextlib.suppress(Exception):  # the failure is reported already
            (host.run / "accessibility-tree.txt").write_text("".join(
                f"[{node.getRoleName()}] {node.name!r}\n" for node in find(host.app, "")))
            host.screenshot("failure.png")
        return 1
    finally:
        # On a time-out CTest kills this driver, and every child dies with it.
        host.close()


if __name__ == "__main__":
    sys.exit(main())
