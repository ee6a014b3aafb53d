"""What one run of one tool costs: time, processor, memory, and what crosses the wire."""

import contextlib
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from dataclasses import asdict, dataclass
from pathlib import Path

LIMIT = 300  # seconds after which a program is ended and its tool has failed
TICKS = os.sysconf("SC_CLK_TCK")


class Failed(Exception):
    """A tool did not do what it was asked to. The others go on."""


class Proxy:
    """The delay proxy in front of the store; it ends with us."""

    def __init__(self, program, store_port):
        self._process = subprocess.Popen([program, str(store_port)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True, start_new_session=True)  # a Ctrl-C is not for it
        self.endpoint = f"127.0.0.1:{int(self._process.stdout.readline())}"

    def _ask(self, line):
        print(line, file=self._process.stdin, flush=True)
        return self._process.stdout.readline().split()

    def delay(self, milliseconds):
        assert self._ask(f"delay {milliseconds}") == ["ok"]

    def take(self):
        """Requests, bytes sent and bytes received since the last time."""
        return [int(word) for word in self._ask("take")]

    def close(self):
        self._process.stdin.close()
        self._process.wait(10)


@dataclass
class Figures:
    wall: float = 0  # seconds
    cpu: float = 0  # seconds, user and system, of all processes of the tool
    peak: int = 0  # bytes resident in the largest of them
    requests: int = 0
    sent: int = 0  # bytes, HTTP heads included
    received: int = 0


class Run:
    """One run. Its programs share an empty folder for their temporary files, which goes with it."""

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
        """The figures, with all that the programs have still asked the store for after they had answered."""
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
        """Run a program to its end; what it takes is added to the figures."""
        # A process begins with the peak of the one that it is forked from. This interpreter's would hide small ones.
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

    @contextlib.contextmanager
    def mounted(self, command, **environment):
        """A fresh mount. What it took to mount is not counted; what it does until it has ended is, but for the time."""
        place = self.folder / "mount"
        place.mkdir()
        with open(self.folder / "mount.log", "w+") as log:
            mount = subprocess.Popen([str(word) for word in command] + [str(place)], stdin=subprocess.DEVNULL,
                                     stdout=log, stderr=log, env=self.environment | environment, start_new_session=True)
            try:
                for _ in range(500):
                    if os.path.ismount(place) or mount.poll() is not None:
                        break
                    time.sleep(0.02)
                if not os.path.ismount(place):
                    log.seek(0)
                    raise Failed(f"{command[0]} does not mount: {log.read()[-300:].strip()}")
                self._proxy.take()
                before = Path(f"/proc/{mount.pid}/stat").read_text().rsplit(")", 1)[1].split()
                yield place
                status = Path(f"/proc/{mount.pid}/status").read_text()
                peak = int(re.search(r"VmHWM:\s+(\d+)", status)[1]) * 1024
                self.figures.peak = max(self.figures.peak, peak)
            finally:
                unmount(place)
                if mount.returncode is None:
                    usage, _ = await_end(mount, 10)
        self.figures.cpu += usage.ru_utime + usage.ru_stime - (int(before[11]) + int(before[12])) / TICKS


def unmount(place):
    for _ in range(50):
        if not os.path.ismount(place) or subprocess.run(["fusermount", "-u", place], stderr=subprocess.DEVNULL).returncode == 0:
            return
        time.sleep(0.1)  # somebody is still in it
    subprocess.run(["fusermount", "-uz", place], check=False)


def await_end(process, limit=LIMIT):
    """What a process and those that it waited for have used, and its status; it is ended once the limit is reached."""
    over = threading.Event()

    def end():
        over.set()
        os.killpg(process.pid, signal.SIGKILL)  # a session of its own, see above

    timer = threading.Timer(limit, end)
    timer.start()
    try:
        _, status, usage = os.wait4(process.pid, 0)
    except BaseException:  # we are to end, and it with us
        end()
        raise
    finally:
        timer.cancel()
    process.returncode = os.waitstatus_to_exitcode(status)
    if over.is_set():
        raise Failed(f"did not end within {limit} s")
    return usage, process.returncode
