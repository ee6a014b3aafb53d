#!/usr/bin/env python3
"""Kill the program at random instants while it works on a local store, and check what the next start finds.

Every file must be one of the versions that the killed commands were storing or replacing, a command that reported
success must have stored its file, and nothing but the files may be left. A file that get downloads is whole or the old
one, too.
"""

import math
import signal
import subprocess
import sys
import time

from campaign import LARGE, MEDIUM, MISSING, SMALL, Campaign, digest, make_bytes

SIZES = {"small": SMALL, "medium": MEDIUM, "large": LARGE}
PART = 5 * 1024 * 1024


class Kills(Campaign):
    def __init__(self):
        super().__init__(__doc__, rounds=1000)
        self.store_folder = self.folder / "store"
        self.store = f"local:{self.store_folder}"
        self.downloads = self.folder / "downloads"
        self.downloads.mkdir()
        self.downloaded = {}  # file in that folder → its bytes
        self.durations = {}  # of each kind of command that was not killed, in seconds
        self.files = {}  # path in the store → its bytes
        for half in "ab":
            for name, size in SIZES.items():
                self.files[f"{half}/{name}"] = make_bytes(self.rng, size)
        tree = self.write_tree("first", self.files)
        self.expect(self.run(self.store, "put", "-r", tree / "a", "/"))
        self.expect(self.run(self.store, "put", "-r", tree / "b", "/"))

    def expect(self, done):
        if done is None or done.returncode != 0:
            sys.exit(f"the store could not be made: {done}")

    def write_tree(self, name, files):
        root = self.folder / name
        for path, data in files.items():
            (root / path).parent.mkdir(parents=True, exist_ok=True)
            (root / path).write_bytes(data)
        return root

    def plan(self, half):
        """Choose a command in one half of the store. Return its kind, arguments, input and what it does to files."""
        present = [path for path in self.files if path.startswith(half) and self.files[path] is not None]
        names = [f"{half}/{name}" for name in SIZES]
        kind = self.rng.choice(["put", "put", "write", "mv", "rm", "put -r", "get"])
        if kind in ("write", "mv", "rm", "get") and not present:
            kind = "put"
        if kind == "put":
            path = self.rng.choice(names)
            data = make_bytes(self.rng, SIZES[path.split("/")[1]])
            return kind, ["put", "-f", "-", path], data, {path: data}
        if kind == "put -r":
            new = {path: make_bytes(self.rng, SIZES[path.split("/")[1]]) for path in names}
            root = self.write_tree(f"source-{half}", new)
            return kind, ["put", "-rf", root / half, "/"], b"", new
        path = self.rng.choice(present)
        old = self.files[path]
        if kind == "rm":
            return kind, ["rm", path], b"", {path: None}
        if kind == "get":
            return kind, ["get", "-f", path, self.downloads / half], b"", {}
        if kind == "mv":
            target = self.rng.choice([name for name in names if name != path])
            return kind, ["mv", "-f", path, target], b"", {target: old, path: None}
        patch = make_bytes(self.rng, self.rng.randrange(1, 70_000))
        offset = self.rng.randrange(len(old))
        new = old[:offset] + patch + old[offset + len(patch) :]
        return kind, ["write", path, "--offset", str(offset)], patch, {path: new}

    def rival(self, plan):
        """A put of other bytes to the file that this put stores."""
        _, arguments, data, _ = plan
        other = make_bytes(self.rng, len(data))
        return "put", arguments, other, {arguments[-1]: other}

    def start(self, arguments, data):
        source = self.folder / "input"
        source.write_bytes(data)
        with source.open("rb") as stream:
            process = subprocess.Popen(
                self.command(self.store, *arguments), stdin=stream, stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL, env=self.environment)  # fmt: skip
        source.unlink()
        return process

    def strike(self, plans):
        """Run the commands at the same time and kill each at a random instant of its usual duration."""
        processes = [self.start(arguments, data) for _, arguments, data, _ in plans]
        started = time.monotonic()
        ends = [self.rng.uniform(0, 1.1 * self.durations.get(plan[0], 0.1)) for plan in plans]
        statuses = [None] * len(plans)
        for index in sorted(range(len(plans)), key=lambda i: ends[i]):
            try:
                statuses[index] = processes[index].wait(max(0, started + ends[index] - time.monotonic()))
            except subprocess.TimeoutExpired:
                processes[index].send_signal(signal.SIGKILL)
                statuses[index] = processes[index].wait()
        return statuses

    def measure(self, plan):
        started = time.monotonic()
        status = self.start(plan[1], plan[2]).wait()
        elapsed = time.monotonic() - started
        if status != 0:
            self.fail("failed without a kill", f"{plan[1]}: exit {status}")
        before = self.durations.get(plan[0], elapsed)
        self.durations[plan[0]] = 0.7 * before + 0.3 * elapsed
        self.check_downloads([plan], [status])
        self.files.update(plan[3])

    def read_all(self):
        """Read the whole store as the next start does."""
        target = self.folder / "copy"
        done = self.run(self.store, "get", "-r", "/", target)
        if done is None or done.returncode != 0:
            self.fail("torn", f"the store cannot be read: {done and done.stderr[-300:]!r}")
            return None
        found = {path: None for path in self.files}
        for file in target.rglob("*"):
            if file.is_file():
                found[str(file.relative_to(target))] = file.read_bytes()
                file.unlink()
        subprocess.run(["rm", "-rf", str(target)], check=True)
        return found

    def check(self, plans, statuses):
        allowed = {path: [data] for path, data in self.files.items()}
        for (_, arguments, _, effects), status in zip(plans, statuses):
            if status not in (0, -signal.SIGKILL):
                self.fail("wrong status", f"{arguments}: exit {status}")
            for path, data in effects.items():
                allowed[path].append(data)
        for plan, status in zip(plans, statuses):
            for path in plan[3] if status == 0 else ():  # a command that succeeded has replaced the old bytes
                allowed[path] = [data for data in allowed[path] if data is not self.files[path]]
        found = self.read_all()
        if found is None:
            return
        for path, data in found.items():
            if digest(data) not in map(digest, allowed.get(path, [])):
                self.fail("lost" if data is None else "torn", f"{path} after {[plan[1] for plan in plans]}")
        for kind, arguments, _, effects in plans:
            if kind == "mv":  # must not remove its source before the target is stored
                target, source = effects
                if found[source] is None and digest(found[target]) != digest(effects[target]):
                    self.fail("lost", f"{source} after {arguments}")
        self.check_downloads(plans, statuses)
        self.files = found
        self.check_leftovers()

    def check_downloads(self, plans, statuses):
        for (kind, arguments, _, _), status in zip(plans, statuses):
            if kind == "get":
                *_, path, file = arguments
                found = file.read_bytes() if file.exists() else None
                allowed = [self.files[path]] if status == 0 else [self.files[path], self.downloaded.get(file)]
                if digest(found) not in map(digest, allowed):
                    self.fail("torn", f"{file} after {arguments}")
                self.downloaded[file] = found
                if status != 0:  # the next get into a folder removes what a killed one has left there
                    self.run(self.store, "get", "-f", path, self.downloads / "next")
        if left := {*self.downloads.iterdir()} - {*self.downloaded, self.downloads / "next"}:
            self.fail("left over", f"{left} after {[plan[1] for plan in plans]}")
            for file in left:
                file.unlink()

    def check_leftovers(self):
        if left := list(self.buffers.iterdir()):
            self.fail("left over", f"{len(left)} temporary files")
            for file in left:
                file.unlink()
        uploads = self.run(self.store, "uploads", "list")
        if uploads is not None and uploads.stdout:
            self.fail("left over", f"uploads: {uploads.stdout!r}")
            self.run(self.store, "uploads", "abort", "--older-than", "0s")
        parts = sum(math.ceil(len(data) / PART) for data in self.files.values() if data and len(data) > 64 * 1024)
        contents = len(list((self.store_folder / "contents").rglob("*")))
        incoming = len(list((self.store_folder / "incoming").iterdir()))
        if contents > parts or incoming:
            self.fail("left over", f"{contents} content files for {parts} parts, {incoming} incoming")

    def main(self):
        for number in range(self.options.rounds):
            plans = [self.plan("a")] if number % 2 == 0 else [self.plan("a"), self.plan("b")]
            if number % 5 == 0 and plans[0][0] == "put":
                plans.append(self.rival(plans[0]))
            if plans[0][0] not in self.durations or number % 20 == 0:
                self.measure(plans[0])
                continue
            statuses = self.strike(plans)
            self.counts["killed"] += sum(status == -signal.SIGKILL for status in statuses)
            self.counts["finished first"] += sum(status == 0 for status in statuses)
            self.check(plans, statuses)
        self.finish("kill -9 of put, write, mv, rm, put -r, get",
                    ["torn", "lost", "left over", "wrong status", "hang", "signal"])  # fmt: skip


Kills().main()
