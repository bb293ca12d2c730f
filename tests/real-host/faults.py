# SPDX-License-Identifier: GPL-2.0-or-later
"""The service in trouble under a signed-in OBS that streams: gone, then back with replies that
never come, also while OBS exits. The stall probe, a module of the test's own beside the plug-in,
times OBS's UI thread all the while."""

import time

import health
from host import DOCKS, check, find, press, read, wait_for

ACCOUNT, CHANNELS = DOCKS[0], DOCKS[1]
# Far beyond what the scheduler of a busy machine costs, far below any wait on the network.
LONGEST_STALL_MS = 1000


def stalls(host, since=0):
    """The probe's late ticks since an instant of time.monotonic(), in ms."""
    lines = [line.split() for line in read(host.stalls).splitlines()]
    return [int(late) for at, late in lines if int(at) >= since * 1000]


def fault(host, name, **more):
    check(host.ask_service("/dev/fault", body={"fault": name, **more})[0] == 200,
          f"the service's fault is \"{name}\"")


def hold(host):
    """Refresh, and the stalling service holds a request of the plug-in's."""
    log, line = host.run / "dev-service.log", "GET /api/channels held"
    before = read(log).count(line)
    press(host.one("button", "Refresh", CHANNELS))
    wait_for("the service holds the plug-in's request", lambda: read(log).count(line) > before)


def run(host):
    """While OBS streams."""
    check(stalls(host), "the stall probe runs inside OBS")
    # What no client of the service sends, as from a web page that points a name of its own at
    # 127.0.0.1, is turned away before any route: the service's faults are no one else's switch.
    for headers, body in (({"Content-Type": "text/plain"}, {}), ({"Host": "tessivane.example"}, {}),
                          ({}, {"fault": "x" * 70000})):
        check(host.ask_service("/dev/fault", body={"fault": "stall", **body}, **headers)[0] == 400,
              f"the service turns away {headers or 'a body beyond any of its own'}")
    host.faults_began = time.monotonic()
    print("faults: the service stops; the stream and the streamer go on", flush=True)
    host.stop(host.service)
    press(host.one("button", "Refresh", CHANNELS))
    wait_for("the Account dock's status line says why", lambda: any(
        label.name == "Load channels: Connection refused"
        for label in find(host.dock(ACCOUNT), "label")))
    check(health.reaches_ingest(host), "the RTMP server still hands on OBS's stream")
    for name in ("Chat messages", None, "Chat message"):
        host.press("Tab", focus=name)
    host.type_into(host.one("text", "Chat message", DOCKS[4]), "anyone there?")
    host.press("Return")
    host.announced("Send chat: Connection refused", politeness="2")
    host.screenshot("faults-service-away.png")
    print("faults: the service comes back, but its replies never come", flush=True)
    check("listening" in host.start_service(host.args.dev_service, "--resume-session", host.token,
                                            "--fault", "stall"), "the service listens, stalling")
    hold(host)
    fault(host, "none")


def exit_while_held(host):
    print("faults: the service holds every request; OBS exits meanwhile", flush=True)
    fault(host, "stall")
    hold(host)
    longest = max(stalls(host, host.faults_began), default=0)
    check(longest < LONGEST_STALL_MS, f"OBS's UI thread was never held up {LONGEST_STALL_MS} ms "
          f"while the service failed: {longest} ms at most")
    host.exit_obs()
    fault(host, "none")
    print(f"faults: the longest UI stall was {longest} ms while the service failed, "
          f"{max(stalls(host))} ms in the whole run, OBS's start included", flush=True)
