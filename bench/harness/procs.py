"""Child processes measured the way the figures need them: wall time, the child's own user and
system CPU seconds and its peak resident set."""

import os
import signal
import socket
import subprocess
import threading
import time
from dataclasses import dataclass


@dataclass
class Run:
    """One finished child process."""

    argv: list
    exit_code: int
    wall_s: float
    user_s: float
    sys_s: float
    max_rss_bytes: int
    log: str  # path of the file holding its standard output and error
    receiver_cpu_s: float = 0.0  # CPU the receiver spent meanwhile, when it was measured

    @property
    def cpu_s(self):
        return self.user_s + self.sys_s

    def tail(self, lines=15):
        try:
            with open(self.log, errors="replace") as f:
                return "".join(f.readlines()[-lines:])
        except OSError:
            return ""


class Child:
    """A started child, measured by GNU time: the figures are the child's own even though this
    harness is a large process (a child forked from it would inherit its peak resident set).
    Signals go to the tool itself, time's only child. The tool stays in the harness's session:
    with the scheduler's autogroups a session of its own would change the tool's share of a
    busy machine's CPU (small parts ran at half speed that way). A watchdog kills the tool after
    `limit_s`, so a stuck tool cannot hang the benchmark."""

    def __init__(self, argv, log, limit_s, cpu=None, env=None):
        self.argv = [str(a) for a in argv]
        self.log = log
        self._stats = log + ".time"
        self._log_file = open(log, "wb")
        self.started = time.monotonic()
        pin = [] if cpu is None else ["taskset", "--cpu-list", str(cpu)]
        self.proc = subprocess.Popen(
            pin + ["/usr/bin/time", "-o", self._stats, "-f", "%e %U %S %M"] + self.argv,
            stdin=subprocess.DEVNULL,
            stdout=self._log_file,
            stderr=self._log_file,
            env=None if env is None else {**os.environ, **env},
        )
        self.killed = False
        self._done = threading.Event()
        self._watchdog = threading.Thread(target=self._watch, args=(limit_s,), daemon=True)
        self._watchdog.start()

    def _watch(self, limit_s):
        if not self._done.wait(limit_s):
            self.killed = True
            self.signal(signal.SIGKILL)

    def tool_pid(self, limit_s=5.0):
        """The measured tool's process id (time's child), waiting briefly for the fork."""
        deadline = time.monotonic() + limit_s
        while time.monotonic() < deadline:
            try:
                with open(f"/proc/{self.proc.pid}/task/{self.proc.pid}/children") as f:
                    children = f.read().split()
            except OSError:
                return None  # time has ended
            if children:
                return int(children[0])
            time.sleep(0.001)
        return None

    def signal(self, signum):
        """Sends `signum` to the tool; time itself ignores SIGINT and reports the tool's end.
        SIGKILL goes to time as well."""
        pid = self.tool_pid()
        for target in [pid] + ([self.proc.pid] if signum == signal.SIGKILL else []):
            if target is None:
                continue
            try:
                os.kill(target, signum)
            except ProcessLookupError:
                pass

    def stop(self, grace_s=5.0):
        """SIGTERM, then SIGKILL after `grace_s`; reaps the child. For servers, not for figures."""
        if self.proc.returncode is not None:
            return
        self.signal(signal.SIGTERM)
        killer = threading.Timer(grace_s, self.signal, args=(signal.SIGKILL,))
        killer.start()
        try:
            self.wait()
        except RuntimeError:
            pass
        finally:
            killer.cancel()

    def wait(self):
        """Reaps the child; returns its Run. The wall time runs from spawn to reaping."""
        self.proc.wait()
        ended = time.monotonic()
        self._done.set()
        self._log_file.close()
        if self.killed:
            raise RuntimeError(f"{self.argv[0]} ran past its time limit and was killed")
        exit_code = self.proc.returncode
        try:
            with open(self._stats) as f:
                lines = f.read().splitlines()
        except OSError:
            lines = []
        for line in lines:
            if line.startswith("Command terminated by signal"):
                exit_code = -int(line.split()[-1])
        try:
            _, user_s, sys_s, rss_kib = lines[-1].split()
        except (IndexError, ValueError):
            raise RuntimeError(f"no measurement for {self.argv[0]}: {lines}") from None
        return Run(
            argv=self.argv,
            exit_code=exit_code,
            wall_s=ended - self.started,
            user_s=float(user_s),
            sys_s=float(sys_s),
            max_rss_bytes=int(rss_kib) * 1024,
            log=self.log,
        )


def require_success(run_, what):
    if run_.exit_code != 0:
        raise RuntimeError(
            f"{what} failed with exit status {run_.exit_code}: {' '.join(run_.argv[:4])} ...\n"
            f"{run_.tail()}"
        )
    return run_


def free_port():
    """An ephemeral port that was free a moment ago on 127.0.0.1."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, limit_s=10.0):
    deadline = time.monotonic() + limit_s
    while time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.02)
    raise RuntimeError(f"nothing listens on 127.0.0.1:{port} after {limit_s} s")


class Server:
    """`pellorin serve` in its own process for the length of a `with` block."""

    def __init__(self, pellorin, log, cpu=None):
        self.port = free_port()
        # Without --dir the receiver only hashes the bodies: no disk writes in the figures.
        self._child = Child([pellorin, "serve", "--port", self.port], log, limit_s=24 * 3600,
                            cpu=cpu)

    def __enter__(self):
        try:
            wait_for_port(self.port)
        except RuntimeError:
            self.stop()
            raise
        return self

    def __exit__(self, *exc):
        self.stop()

    def cpu_seconds(self):
        """User + system CPU seconds the serving process has used so far (all its threads)."""
        with open(f"/proc/{self._child.tool_pid()}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def url(self, name, offset):
        return f"http://127.0.0.1:{self.port}/upload/{name}?offset={offset}"

    def stop(self):
        self._child.stop()

