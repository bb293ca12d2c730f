# SPDX-License-Identifier: GPL-2.0-or-later
"""The service in trouble under a signed-in OBS: replies of garbage, the service gone while OBS
streams and back again, replies that never come while OBS ends. The stall probe, a module of the
test's own beside the plug-in, watches OBS's UI thread all the while."""

import time

import health
import pyatspi
from host import DOCKS, check, find, press, read, wait_for

ACCOUNT, CHANNELS, STREAM_INFO, HEALTH = DOCKS[0], DOCKS[1], DOCKS[2], DOCKS[3]
SWITCH, SAVE = "Include demostreamer", "Save Stream Information"
INVALID = "Tessivane returned an invalid response."
# Far beyond what the scheduler of a busy machine costs, far below any wait on the network.
LONGEST_STALL_MS = 1000
phases = []


def stalls(host, start, end=float("inf")):
    """The probe's lines between two instants of time.monotonic(): (ms, lateness in ms)."""
    lines = [tuple(map(int, line.split())) for line in read(host.stalls).splitlines()]
    return [(at, late) for at, late in lines if start * 1000 <= at <= end * 1000]


def phase(host, name, start):
    worst = max((late for _, late in stalls(host, start)), default=0)
    phases.append((name, worst))
    check(worst < LONGEST_STALL_MS, f"OBS's UI thread was never held up {LONGEST_STALL_MS} ms "
          f"{name} (longest {worst} ms)")
    return time.monotonic()


def fault(host, name):
    check(host.ask_service("/dev/fault", body={"fault": name})[0] == 200,
          f"the service takes the fault \"{name}\"")


def says(host, message, operation="Save stream information"):
    """The failure on both status lines: the Account dock's, behind its account page, whatever
    request failed last, and the Stream Information dock's, in view, for the save."""
    wait_for(f"the Account dock's status line ends in \"{message}\"", lambda: any(
        label.name.endswith(f": {message}") for label in find(host.dock(ACCOUNT), "label")))
    wait_for(f"the Stream Information dock says \"{operation}: {message}\"",
             lambda: host.shown("label", f"{operation}: {message}", STREAM_INFO))


def checked(host):
    return host.shown("check box", SWITCH, CHANNELS)[0].getState().contains(pyatspi.STATE_CHECKED)


def run(host):
    """While OBS streams."""
    check(stalls(host, 0), "the stall probe runs inside OBS")
    start = time.monotonic()
    print("faults: the service answers garbage", flush=True)
    fault(host, "garbage")
    press(host.shown("button", "Refresh", CHANNELS)[0])
    press(host.shown("button", SAVE, STREAM_INFO)[0])
    says(host, INVALID)
    fault(host, "none")
    start = phase(host, "while the service answered garbage", start)

    print("faults: the service stops; the stream goes on, the streamer goes on", flush=True)
    host.stop(host.service)
    check(not checked(host), f"\"{SWITCH}\" is off")
    press(host.shown("check box", SWITCH, CHANNELS)[0])
    press(host.shown("button", SAVE, STREAM_INFO)[0])
    says(host, "Connection refused")
    check(health.reaches_ingest(host), "the RTMP server still hands on OBS's stream")
    check(host.shown("button", "Stop Streaming", HEALTH) and checked(host),
          f"OBS streams, and \"{SWITCH}\" stays as the streamer set it")
    host.screenshot("faults-service-away.png")
    start = phase(host, "while the service was away", start)

    print("faults: the service comes back; the next poll shows its state", flush=True)
    check("listening" in host.start_service(host.args.dev_service, "--resume-session", host.token),
          "the service listens again, with the session")
    wait_for(f"\"{SWITCH}\" is off again, as the service has it", lambda: not checked(host), 15)
    phase(host, "until the service was back", start)


def exit_while_held(host):
    print("faults: the service holds every request; OBS exits meanwhile", flush=True)
    start = time.monotonic()
    fault(host, "stall")
    press(host.shown("button", "Refresh", CHANNELS)[0])
    press(host.shown("button", SAVE, STREAM_INFO)[0])
    wait_for("the service holds the plug-in's requests", lambda: all(
        f"{request} held" in read(host.run / "dev-service.log")
        for request in ("GET /api/channels", "POST /api/stream-profile")))
    phase(host, "while the service held the requests", start)
    host.exit_obs()
    fault(host, "none")


def report(host):
    lines = stalls(host, 0)
    print("faults: longest UI stalls: " + ", ".join(f"{late} ms {name}" for name, late in phases)
          + f"; {max(late for _, late in lines)} ms in the whole run, OBS's start included, "
          f"{sum(late >= 50 for _, late in lines)} of them 50 ms or more", flush=True)
