#!/usr/bin/env python3
"""Run every command with too little disk, descriptors, memory or processes, and check what is left.

A command that reports success must have stored its file, one that fails must leave the old or the new one. None may be
ended by a signal. On a full disk, listing, reading and removing must work. Needs root, for a small file system and for
another user, whose processes can be limited.
"""

import os
import resource
import shutil
import subprocess
import sys

from campaign import LARGE, MEDIUM, SMALL, Campaign, digest, make_bytes

NOBODY = 65534
DISK = 64 * 1024 * 1024


class Shortage(Campaign):
    def __init__(self):
        super().__init__(__doc__, rounds=1)
        self.disk = self.folder / "disk"
        self.disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={DISK}", "tmpfs", self.disk], check=True)
        self.folder.chmod(0o755)
        program = self.folder / "cloudfs"  # where the other user can run it
        shutil.copy(self.program, program)
        self.program = program
        self.old = {name: make_bytes(self.rng, size) for name, size in
                    (("small", SMALL), ("medium", MEDIUM), ("large", LARGE))}  # fmt: skip
        self.new = {name: make_bytes(self.rng, len(data)) for name, data in self.old.items()}
        self.tree = self.folder / "tree"
        self.tree.mkdir()
        for name, data in self.new.items():
            (self.tree / name).write_bytes(data)
        self.store = f"local:{self.disk / 'store'}"
        os.chown(self.buffers, NOBODY, NOBODY)

    def reset(self):
        """Make the store again."""
        for entry in [*self.disk.iterdir(), *self.buffers.iterdir()]:
            shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
        for name, data in self.old.items():
            if self.run(self.store, "put", "-f", "-", name, data=data).returncode != 0:
                sys.exit("the store could not be made")
        for folder, _, files in os.walk(self.disk):
            for entry in (folder, *(os.path.join(folder, name) for name in files)):
                os.chown(entry, NOBODY, NOBODY)

    def commands(self):
        """Each with its input and with the files as they are after success."""
        for name, data in self.new.items():
            yield ["put", "-f", "-", name], data, {name: data}
            yield ["put", "-", "another"], data, {"another": data}
            yield ["cat", name], b"", {}
            patched = self.old[name][:1000] + b"patch" + self.old[name][1005:]
            yield ["write", name, "--offset", "1000"], b"patch", {name: patched}
            yield ["mv", name, "another"], b"", {"another": self.old[name], name: None}
            yield ["rm", name], b"", {name: None}
        yield ["put", "-rf", self.tree, "/"], b"", {f"tree/{name}": data for name, data in self.new.items()}
        yield ["ls", "-R", "/"], b"", {}

    def limited(self, arguments, data, limits):
        def prepare():
            for kind, value in limits.items():
                resource.setrlimit(kind, (value, value))
            os.setgid(NOBODY)
            os.setuid(NOBODY)

        try:
            return subprocess.run(self.command(self.store, *arguments), input=data, capture_output=True, timeout=120,
                                  env=self.environment, preexec_fn=prepare)  # fmt: skip
        except subprocess.TimeoutExpired:
            self.fail("hang", f"{arguments} with {limits}")
        except subprocess.SubprocessError:
            return None  # the limit does not even let the program start
        return None

    def try_command(self, what, limits, command):
        arguments, data, effects = command
        self.reset()
        limits = dict(limits)
        free = limits.pop("disk", None)
        if free is not None:
            self.fill(free)
        done = self.limited(arguments, data, limits)
        if done is None:
            return
        context = f"{what}: {[str(argument) for argument in arguments]}: exit {done.returncode}: {done.stderr[-300:]!r}"
        started = done.returncode != 127  # the loader's own status if it finds no room for the libraries
        self.counts["succeeded" if done.returncode == 0 else "failed" if started else "not started"] += 1
        if done.returncode < 0 or done.returncode >= 128:
            self.fail("signal", context)
        elif started and done.returncode != 0 and not done.stderr.startswith(b"cloudfs: "):
            self.fail("silent failure", context)
        if free is not None and arguments[0] in ("cat", "rm", "ls") and done.returncode != 0:
            self.fail("unusable full disk", context)
        (self.disk / "ballast").unlink(missing_ok=True)
        self.check(arguments, done, effects, context)

    def check(self, arguments, done, effects, context):
        if arguments[0] == "cat" and done.returncode == 0 and done.stdout != self.old[arguments[1]]:
            self.fail("partial", context)
        if left := list(self.buffers.iterdir()):
            self.fail("left over", f"{context}: {left}")
        for path in {*self.old, *effects}:
            read = self.run(self.store, "cat", path)
            found = read.stdout if read.returncode == 0 else None
            new = effects.get(path, self.old.get(path))
            allowed = [new] if done.returncode == 0 else [new, self.old.get(path)]
            if digest(found) not in map(digest, allowed):
                self.fail("partial", f"{path} after {context}")

    def fill(self, free):
        """Leave this many bytes of the disk."""
        with open(self.disk / "ballast", "wb") as ballast:
            status = os.statvfs(self.disk)
            room = status.f_bavail * status.f_frsize - free
            if room > 0:
                os.posix_fallocate(ballast.fileno(), 0, room)

    def main(self):
        limits = [(f"{free} bytes of disk", {"disk": free})
                  for free in (0, 4096, 40_000, 200_000, 1_000_000, 6_000_000, 14_000_000)]  # fmt: skip
        limits += [(f"{files} descriptors", {resource.RLIMIT_NOFILE: files})
                   for files in (3, 4, 5, 6, 7, 8, 9, 10, 12, 14, 16, 20, 24, 32)]  # fmt: skip
        limits += [(f"{mib} MiB of memory", {resource.RLIMIT_AS: mib << 20})
                   for mib in (16, 24, 32, 40, 48, 56, 64, 80, 96, 128, 192)]  # fmt: skip
        limits += [(f"{processes} processes", {resource.RLIMIT_NPROC: processes}) for processes in (1, 2, 3, 5)]
        limits += [(f"files of {size} bytes", {resource.RLIMIT_FSIZE: size}) for size in (0, 1000, 100_000, 1_000_000)]
        cases = [(*limit, command) for limit in limits for command in self.commands()]
        cases = self.rng.sample(cases, min(self.options.rounds, len(cases)))
        self.options.rounds = len(cases)
        try:
            for case in cases:
                self.try_command(*case)
        finally:
            subprocess.run(["umount", self.disk], check=True)
        self.finish("commands with a shortage",
                    ["partial", "left over", "silent failure", "unusable full disk", "hang", "signal"])  # fmt: skip


if "CAMPAIGN_MOUNTS" not in os.environ:  # mount in a namespace of our own
    os.environ["CAMPAIGN_MOUNTS"] = "own"
    os.execvp("unshare", ["unshare", "--mount", sys.executable, *sys.argv])
Shortage().main()
