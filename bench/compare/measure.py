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

END_LIMIT = 10  # seconds; a mount that needs longer to end after it was unmounted hangs
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

    def __init__(self, proxy, folder, limit):
        """limit: seconds; if a program runs longer, it is killed, and its tool has failed"""
        self._proxy = proxy
        self.limit = limit
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
                usage, status = await_end(process, self.limit, self._mount)
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
    def mounted(self, command, counts_end=False, **environment):
        """Mount, and unmount at the end. Everything after the mounting is counted, except the wall time of the
        unmounting. With counts_end, that is counted too, because the mount stores the last changes then."""
        mount_point = self.folder / "mount"
        mount_point.mkdir()
        log = self.folder / "mount.log"
        with open(log, "w") as sink:
            mount = subprocess.Popen([*map(str, command), str(mount_point)], stdin=subprocess.DEVNULL, stdout=sink,
                                     stderr=sink, env=self.environment | environment, start_new_session=True)
        try:
            for _ in range(500):
                if os.path.ismount(mount_point) or mount.poll() is not None:
                    break
                time.sleep(0.02)
            if not os.path.ismount(mount_point):
                raise Failed(f"{command[0]} did not mount: {log.read_text()[-300:].strip()}")
            self._mount = mount
            self.restart()
            yield mount_point
            status = Path(f"/proc/{mount.pid}/status").read_text()
            self.figures.peak = max(self.figures.peak, int(re.search(r"VmHWM:\s+(\d+)", status)[1]) * 1024)
            with self.timing() if counts_end else contextlib.nullcontext():
                unmount(mount_point)
                usage, status = await_end(mount, self.limit if counts_end else END_LIMIT)
            if status != 0:
                raise Failed(f"{command[0]} ended with {status}: {log.read_text()[-300:].strip()}")
            self.figures.cpu += usage.ru_utime + usage.ru_stime - self._cpu_before
        except BaseException:
            if mount.returncode is None:
                os.killpg(mount.pid, signal.SIGKILL)
                mount.wait()
            subprocess.run(["fusermount", "-uz", mount_point], stderr=subprocess.DEVNULL, check=False)
            raise
        finally:
            self._mount = None

    def restart(self):
        """Count only what follows, for example the second use of a mount. Its peak memory stays that of all uses."""
        self.figures = Figures()
        self._proxy.take()
        times = Path(f"/proc/{self._mount.pid}/stat").read_text().rsplit(")", 1)[1].split()
        self._cpu_before = (int(times[11]) + int(times[12])) / TICKS


def unmount(mount_point):
    for _ in range(50):
        if not os.path.ismount(mount_point):
            return
        if subprocess.run(["fusermount", "-u", mount_point], stderr=subprocess.DEVNULL).returncode == 0:
            return
        time.sleep(0.1)  # still in use
    subprocess.run(["fusermount", "-uz", mount_point], check=False)


def drop_page_cache():
    """Let the mounts themselves answer what was read before. Only root can do that."""
    with contextlib.suppress(OSError):
        Path("/proc/sys/vm/drop_caches").write_text("3")


def await_end(process, limit, mount=None):
    """Wait for a process. Return the resources that it and its children used, and its status.

    Kill it at the limit, and the mount that it uses: a process that waits for a mount cannot be killed alone."""
    over = threading.Event()

    def end():
        over.set()
        for each in filter(None, (process, mount)):
            os.killpg(each.pid, signal.SIGKILL)  # it leads its own session and process group

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
