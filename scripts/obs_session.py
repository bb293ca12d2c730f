#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-or-later
"""OBS Studio and what the plug-in talks to on this machine, started together and ended together:
the development service, the RTMP server its ingest points at, and OBS trusting the development
CA. scripts/run uses it with the streamer's own home; the real-host test with a home of its own.

    obs_session.py --dev-service BINARY --port N [--rtmp-port N] --logs DIR [--release KIND]
                   [--user UID:GID] [-- OBS ARGUMENTS]"""

import argparse
import contextlib
import ctypes
import os
import secrets
import select
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[1]


class Session:
    def __init__(self, logs, port, rtmp_port=1935, user=None):
        """With user, a "UID:GID", the children run as that user: only the mount that makes OBS
        trust the development CA needs root."""
        self.logs, self.port, self.rtmp_port = Path(logs), port, rtmp_port
        self.procs, self.service = [], None
        self.user = tuple(map(int, user.split(":"))) if user else None
        self.as_user = [SOURCE / "scripts/as-user", *user.split(":")] if user else []
        self.logs.mkdir(parents=True, exist_ok=True)
        self.own(self.logs)

    def own(self, path):
        """Gives what the session made to the user its children run as."""
        if self.user:
            os.chown(path, *self.user)

    def start(self, name, argv, env=None, stdout=None, log=True, pass_fds=()):
        """Starts a child in a process group of its own, which dies with this process. Its
        output goes to LOGS/NAME.log, unless log is false."""
        if argv[0] != SOURCE / "devservice/with-dev-ca":
            argv = [*self.as_user, *argv]
        with open(self.logs / f"{name}.log", "ab") as file:
            self.own(file.name)
            out = file if log else None
            proc = subprocess.Popen([str(arg) for arg in argv], env=env, stdin=subprocess.DEVNULL,
                                    stdout=stdout or out, stderr=out, pass_fds=pass_fds,
                                    start_new_session=True,
                                    preexec_fn=lambda: ctypes.CDLL(None).prctl(1, 9))
        self.procs.append(proc)
        return proc

    def stop(self, proc):
        # The group can outlive its leader, so it is killed even when the leader has ended.
        self.procs.remove(proc)
        for signum in (signal.SIGTERM, signal.SIGKILL):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(proc.pid, signum)
            with contextlib.suppress(subprocess.TimeoutExpired):
                proc.wait(3)

    def close(self):
        while self.procs:
            self.stop(self.procs[-1])

    def start_service(self, binary, *switches):
        """Starts the development service on the session's port with the given switches, after
        ending the one this session started before; returns the line it announces itself with
        once it listens, or an empty one."""
        if self.service in self.procs:
            self.stop(self.service)
        self.service = self.start("dev-service", [binary, "--port", self.port, "--rtmp-port",
                                                  self.rtmp_port, *switches], stdout=subprocess.PIPE)
        ready = select.select([self.service.stdout], [], [], 20)[0]
        return self.service.stdout.readline().decode().strip() if ready else ""

    def start_ingest(self):
        """Starts nginx as the RTMP server on 127.0.0.1 and the session's RTMP port, with the
        project's configuration, in LOGS/rtmp; returns its ingest URL once it takes connections,
        or an empty one."""
        folder = (self.logs / "rtmp").resolve()  # nginx reads relative paths from its prefix
        folder.mkdir(exist_ok=True)
        self.own(folder)
        config = folder / "nginx.conf"
        config.write_text((SOURCE / "devservice/rtmp/nginx.conf").read_text()
                          .replace("@PORT@", str(self.rtmp_port)).replace("@DIR@", str(folder)))
        self.own(config)
        proc = self.start("rtmp", [shutil.which("nginx") or "/usr/sbin/nginx", "-p", folder,
                                   "-e", folder / "error.log", "-c", config])
        deadline = time.monotonic() + 10
        while proc.poll() is None and time.monotonic() < deadline:
            with contextlib.suppress(OSError), socket.create_connection(
                    ("127.0.0.1", self.rtmp_port), 1):
                return f"rtmp://127.0.0.1:{self.rtmp_port}/live"
            time.sleep(0.1)
        return ""

    def start_screen(self, display):
        """Starts the virtual screen :DISPLAY, which takes only the clients that hold its fresh
        cookie, kept in LOGS/xauthority; returns the environment of such a client, or None when
        the screen did not start."""
        auth = (self.logs / "xauthority").resolve()
        auth.unlink(missing_ok=True)
        # xauth, as the children's user, makes the file theirs alone and reads the cookie from its
        # input: on its command line, every local user could read it.
        with open(self.logs / "xvfb.log", "ab") as log:
            self.own(log.name)
            made = subprocess.run([*map(str, self.as_user), "xauth", "-f", auth, "source", "-"],
                                  input=f"add :{display} . {secrets.token_hex(16)}\n", text=True,
                                  stdout=log, stderr=log)
        if made.returncode:
            return None
        # Xvfb writes its number and a new line once it takes clients, or closes the pipe as it
        # fails; a pipe closed before the whole line is there would be the end of it.
        ready, done = os.pipe()
        self.start("xvfb", ["Xvfb", f":{display}", "-auth", auth, "-displayfd", done, "-screen",
                            "0", "1920x1080x24", "-nolisten", "tcp"], pass_fds=(done,))
        os.close(done)
        with os.fdopen(ready, "rb") as pipe:
            started = select.select([pipe], [], [], 20)[0] and pipe.readline().strip()
        return {"DISPLAY": f":{display}", "XAUTHORITY": str(auth)} if started else None

    def start_obs(self, *args, env=None, log=True):
        # with-dev-ca execs OBS, which keeps the pid.
        return self.start("obs", [SOURCE / "devservice/with-dev-ca", *self.as_user, "obs", *args],
                          env, log=log)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--dev-service", required=True, help="the tessivane-dev-service binary")
    parser.add_argument("--port", type=int, required=True, help="port of the service origin")
    parser.add_argument("--rtmp-port", type=int, default=1935,
                        help="port of the RTMP server the ingest points at (default 1935)")
    parser.add_argument("--logs", required=True, help="folder for the services' logs")
    parser.add_argument("--user", help="UID:GID that OBS and the services run as")
    parser.add_argument("--release", default="current",
                        help="what the service's release endpoint offers (devservice/README.md)")
    parser.add_argument("obs_args", nargs="*", help="passed on to OBS")
    args = parser.parse_args()
    sys.stdout.reconfigure(line_buffering=True)
    session = Session(args.logs, args.port, args.rtmp_port, args.user)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        if ingest := session.start_ingest():
            print(f"RTMP server for Start Streaming listening on {ingest}")
        else:
            print(f"The RTMP server did not start (see {args.logs}/rtmp/error.log); streams go "
                  f"to whatever else listens on 127.0.0.1:{args.rtmp_port}")
        line = session.start_service(args.dev_service, "--release", args.release)
        if not line:
            sys.exit(f"The development service did not start: see {args.logs}/dev-service.log")
        print(line)
        env = dict(os.environ, LIBGL_ALWAYS_SOFTWARE=os.environ.get("LIBGL_ALWAYS_SOFTWARE", "1"))
        if not env.get("DISPLAY"):
            # No desktop here: OBS gets a virtual screen of its own, and no one else.
            screen = session.start_screen(87)
            if not screen:
                sys.exit(f"The virtual screen :87 did not start: see {args.logs}/xvfb.log")
            env.update(screen)
            print("No DISPLAY: OBS runs on the virtual screen :87 (see it with XAUTHORITY="
                  f"{screen['XAUTHORITY']} xwd -display :87 -root)")
        print("Sign in on the Tessivane Account dock with demo@tessivane.dev / tessivane-demo")
        return session.start_obs(*args.obs_args, env=env, log=False).wait()
    finally:
        session.close()


if __name__ == "__main__":
    sys.exit(main())
