"""Measure one run of one tool: wall time, CPU time, memory and network traffic."""

import contextlib
import json
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from dataclasses import asdict, dataclass
from pathlib import Path

LIMIT = 300  # seconds; a program that runs longer is killed, and its tool has failed
TICKS = os.sysconf("SC_CLK_TCK")


class Failed(Exception):
    """A tool did not complete the work. The comparison continues with the others."""


class Proxy:
    """The delay proxy in front of the store; it exits when this process closes its standard input."""

    def __init__(self, program, store_port):
        self._process = subprocess.Popen([program, str(store_port)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True, start_new_session=True)  # so that Ctrl-C does not reach it
        self.endpoint = f"127.0.0.1:{int(self._process.stdout.readline())}"

    def _ask(self, line):
        print(line, file=self._process.stdin, flush=True)
        return self._process.stdout.readline().split()

    def delay(self, milliseconds):
        assert self._ask(f"delay {milliseconds}") == ["ok"]

    def take(self):
        """Requests, bytes sent and bytes received since the last call."""
        return [int(word) for word in self._ask("take")]

    def close(self):
        self._process.stdin.close()
        self._process.wait(10)


@dataclass
class Figures:
    wall: float = 0  # seconds
    cpu: float = 0  # seconds, user and system, of all processes of the tool
    peak: int = 0  # bytes, peak resident set of the largest process
    requests: int = 0
    sent: int = 0  # bytes, including HTTP headers
    received: int = 0


class Run:
    """One run. Its programs share a new folder for temporary files, which end() removes."""

    def __init__(self, proxy, folder):
        self._proxy = proxy
        self.folder = Path(folder)
        self.figures = Figures()
        shutil.rmtree(folder, ignore_errors=True)
        self.folder.mkdir()
        self.environment = dict(os.environ, TMPDIR=str(folder))
        self._mount = None
        proxy.take()

    def end(self):
        """The figures, including requests that the programs sent after their work was done."""
        traffic = self._proxy.take()
        self.figures.requests, self.figures.sent, self.figures.received = traffic
        shutil.rmtree(self.folder, ignore_errors=True)
        return asdict(self.figures)

    @contextlib.contextmanager
    def timing(self):
        started = time.monotonic()
        yield
        self.figures.wall += time.monotonic() - started

    def call(self, command, stdin=None, stdout=None, **environment):
        """Run a program to its end and add its cost to the figures."""
        # A forked process inherits the peak memory of its parent; that of this interpreter would hide small peaks.
        peak = self.folder / "peak"
        words = ["/usr/bin/time", "--format=%M", f"--output={peak}", *map(str, command)]
        with contextlib.ExitStack() as files:
            source = files.enter_context(open(stdin or os.devnull, "rb"))
            sink = files.enter_context(open(stdout or os.devnull, "wb"))
            errors = files.enter_context(open(self.folder / "errors", "w+"))
            with self.timing():
                process = subprocess.Popen(words, stdin=source, stdout=sink, stderr=errors,
                                           env=self.environment | environment, start_new_session=True)
                usage, status = await_end(process)
            errors.seek(0)
            if status != 0:
                raise Failed(f"{command[0]} ended with {status}: {errors.read()[-300:].strip()}")
        self.figures.cpu += usage.ru_utime + usage.ru_stime
        self.figures.peak = max(self.figures.peak, int(peak.read_text().split()[-1]) * 1024)

    def call_self_timed(self, command, **environment):
        """Like call(), but count the wall and CPU time that the program prints as JSON instead of those of its whole run."""
        wall, cpu = self.figures.wall, self.figures.cpu
        printed = self.folder / "printed"
        self.call(command, stdout=printed, **environment)
        own = json.loads(printed.read_text())
        self.figures.wall, self.figures.cpu = wall + own["wall"], cpu + own["cpu"]

    @contextlib.contextmanager
    def mounted(self, command, **environment):
        """Mount, and unmount at the end. Everything after the mounting is counted, except the wall time of the unmounting."""
        mount_point = self.folder / "mount"
        mount_point.mkdir()
        with open(self.folder / "mount.log", "w+") as log:
            mount = subprocess.Popen([str(word) for word in command] + [str(mount_point)], stdin=subprocess.DEVNULL,
                                     stdout=log, stderr=log, env=self.environment | environment, start_new_session=True)
            try:
                for _ in range(500):
                    if os.path.ismount(mount_point) or mount.poll() is not None:
                        break
                    time.sleep(0.02)
                if not os.path.ismount(mount_point):
                    log.seek(0)
                    raise Failed(f"{command[0]} did not mount: {log.read()[-300:].strip()}")
                self._proxy.take()
                before = Path(f"/proc/{mount.pid}/stat").read_text().rsplit(")", 1)[1].split()
                yield mount_point
                status = Path(f"/proc/{mount.pid}/status").read_text()
                peak = int(re.search(r"VmHWM:\s+(\d+)", status)[1]) * 1024
                self.figures.peak = max(self.figures.peak, peak)
            finally:
                unmount(mount_point)
                if mount.returncode is None:
                    usage, _ = await_end(mount, 10)
        self.figures.cpu += usage.ru_utime + usage.ru_stime - (int(before[11]) + int(before[12])) / TICKS


def unmount(mount_point):
    for _ in range(50):
        if not os.path.ismount(mount_point):
            return
        if subprocess.run(["fusermount", "-u", mount_point], stderr=subprocess.DEVNULL).returncode == 0:
            return
        time.sleep(0.1)  # still in use
    subprocess.run(["fusermount", "-uz", mount_point], check=False)


def await_end(process, limit=LIMIT):
    """Wait for a process. Return the resources that it and its children used, and its status. Kill it at the limit."""
    over = threading.Event()

    def end():
        over.set()
        os.killpg(process.pid, signal.SIGKILL)  # it leads its own session and process group

    timer = threading.Timer(limit, end)
    timer.start()
    try:
        _, status, usage = os.wait4(process.pid, 0)
    except BaseException:  # this process is interrupted: end the other too
        end()
        raise
    finally:
        timer.cancel()
    process.returncode = os.waitstatus_to_exitcode(status)
    if over.is_set():
        raise Failed(f"did not end within {limit} s")
    return usage, process.returncode
