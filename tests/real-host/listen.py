#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""What a screen reader hears from OBS: every move of the keyboard focus and every announcement on
the accessibility bus, one line each in the file given, as "focus<TAB>role<TAB>name" and
"announce<TAB>politeness<TAB>text" (1 polite, 2 assertive). The real-host test runs it beside OBS
and waits on its lines."""

import sys

import pyatspi


def main(path, pid):
    out = open(path, "a", buffering=1)

    def heard(event):
        source = event.source
        # Another application's events (the bus's own, a dialog of the test's) are not OBS's.
        if not source or source.get_process_id() != pid:
            return
        # This ear hears no change of a name: what it keeps of one may be old.
        source.clear_cache()
        if event.type == "object:announcement":
            out.write(f"announce\t{event.detail1}\t{event.any_data}\n")
        elif event.detail1 == 1:
            out.write(f"focus\t{source.getRoleName()}\t{source.name}\n")

    pyatspi.Registry.registerEventListener(heard, "object:state-changed:focused",
                                           "object:announcement")
    print("listening", flush=True)
    pyatspi.Registry.start()


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]))
