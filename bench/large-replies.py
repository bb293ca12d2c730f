#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""What the largest replies cost OBS's UI thread. Each reply, of up to the client's 4 MB, is made
to give one dock the most work; the reply fuzzer's replay (tests/fuzz) answers every request of
the client with it, about twenty replies, and measures them together. Beside each, in the same
run, the same bytes under a key that no endpoint reads: what parsing them costs alone.
    scripts/in-root python3 bench/large-replies.py [BUILD]     (default: build)"""

import json
import re
import subprocess
import sys
from pathlib import Path

BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else "build")
MANY = 1_300_000  # records of {} in 4 MB


def records(key, record=b"{}", count=MANY):
    return b'{"%s":[' % key.encode() + b",".join([record] * count) + b"]}"


def body(value):
    return json.dumps(value, separators=(",", ":")).encode()


CASES = {  # name: (first byte, body)
    "20,000 channels of {}": (0, records("channels", count=20000)),
    "4 MB of channels": (0, records("channels")),
    "4 MB of chat messages": (0, records("messages")),
    "one message of a 4 MB word": (0, body({"messages": [{"text": "x" * 4_000_000}]})),
    "one adapter of 300,000 lines": (0, body({"adapters": [{"detail": "\n" * 300_000}]})),
    "20,000 connected adapters": (0, body({"adapters": [
        {"connected": True, "provider": f"p{i}", "channelId": i} for i in range(20000)]})),
    "4 MB of suggestions, typing": (0x10, records("categories")),
    "a suggestion of 4 MB, typing": (0x10, body({"categories": [{"name": "x" * 4_000_000}]})),
    "a description of 4 MB": (0, body({"profile": {"description": "word " * 800_000}})),
    "650,000 tags": (0, body({"profile": {"tags": ["tag"] * 650_000}})),
    "4 MB of sync results": (0, records("syncResults")),
    "4 MB of statistics": (0, records("stats")),
}

folder = BUILD / "large-replies"
folder.mkdir(exist_ok=True)
(folder / "warm-up").write_bytes(b'\0{"ok":true}')
print(f"{'UI thread per input':>20} {'parsing alone':>14}  reply")
for index, (name, (first, data)) in enumerate(CASES.items()):
    case, alone = folder / f"{index}", folder / f"{index}.reference"
    case.write_bytes(bytes([first]) + data)
    alone.write_bytes(bytes([first]) + b'{"unread":' + data + b"}")
    output = subprocess.run([BUILD / "tests/fuzz/fuzz-replies", folder / "warm-up", case, alone],
                            capture_output=True, text=True, env={"QT_QPA_PLATFORM": "offscreen"},
                            check=True).stdout
    times = {Path(p).name: float(ms) for ms, p in re.findall(r"([\d.]+) ms  (\S+)", output)}
    print(f"{times[case.name]:17.1f} ms {times[alone.name]:11.1f} ms  {name} "
          f"({len(data) / 1e6:.2f} MB)", flush=True)
