# SPDX-License-Identifier: GPL-2.0-or-later
"""The Stream Health dock in a real OBS: a real stream to the account's ingest, started from the
keyboard and, some steps later, stopped."""

import re
import subprocess

from host import check, wait_for

DOCK = "Tessivane Stream Health"


def platform_states(host):
    return [stat["status"] for stat in host.ask_service("/api/live/stats", host.token)[1]["stats"]]


def reaches_ingest(host):
    """Whether the RTMP server hands on a video stream under the account's key."""
    probe = subprocess.run(["ffprobe", "-v", "error", "-rw_timeout", "10000000", "-show_entries",
                            "stream=codec_type", "-of", "csv=p=0",
                            f"{host.ingest['server']}/{host.ingest['streamKey']}"],
                           capture_output=True, text=True, timeout=30)
    return "video" in probe.stdout.split()


def start(host):
    print("health: Start Streaming sends OBS's stream to the account's ingest", flush=True)
    host.ingest = ingest = host.ask_service("/api/stream-engine/ingest", host.token)[1]
    settings = {"server": ingest["server"], "key": ingest["streamKey"], "use_auth": False}
    wait_for("OBS's profile holds a custom RTMP service with the account's ingest", lambda: (
        saved := host.streaming_service())["type"] == "rtmp_custom"
        and saved["settings"].items() >= settings.items())
    back_to_button(host, "Start Streaming")
    host.press("Space")
    # Should the ingest refuse the stream, OBS's box saying why is in the failure's dump.
    host.one("button", "Stop Streaming", DOCK, timeout=40)
    check(reaches_ingest(host), "the RTMP server hands on the stream")
    wait_for("the service was told the stream is on", lambda: "live" in platform_states(host))
    wait_for("the dock shows an upload rate above zero", lambda: any(
        re.fullmatch(r"\d+\.\d\d Mbps", label.name) and float(label.name.split()[0]) > 0
        for label in host.shown("label", dock=DOCK)))
    with host.alone(DOCK):
        host.look(DOCK)
        host.screenshot("health.png")


def back_to_button(host, caption):
    """From the Chat dock's message field, back past its target box and its feed."""
    for name in (None, "Chat messages", caption):
        host.press("Shift+Tab", focus=name)


def stop(host):
    back_to_button(host, "Stop Streaming")
    host.press("Space")
    host.one("button", "Start Streaming", DOCK)
    wait_for("the service was told the stream is off", lambda: "live" not in platform_states(host))
