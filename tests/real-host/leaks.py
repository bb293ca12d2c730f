# SPDX-License-Identifier: GPL-2.0-or-later
"""The secrets of a session, the password, the session token and the stream key, in no file of the
run (OBS's home and log, the temporary folder, the output of every process the test started) but
where they belong: the token in the plug-in's settings and the key in OBS's streaming service,
while signed in."""

from account import PASSWORD
from host import check


def secrets_in_place(host, signed_in):
    service = host.profile / "service.json"
    # OBS keeps the streaming service it replaces in a backup; after sign-out that too must hold
    # no key.
    backup = service.with_suffix(".json.bak")
    places = {"password": (PASSWORD, set(), set()),  # (secret, where it must be, may be)
              "session token": (host.token, {host.settings} if signed_in else set(), set()),
              "stream key": (host.ingest["streamKey"], {service} if signed_in else set(),
                             {backup} if signed_in else set())}
    files = [path for path in host.run.rglob("*") if path.is_file()]
    for name, (secret, needed, allowed) in places.items():
        found = {path for path in files if secret.encode() in path.read_bytes()}
        check(needed <= found <= needed | allowed,
              f"the {name} is in {sorted(str(path.relative_to(host.run)) for path in found)}")
