#!/usr/bin/python3
"""Compare the command line and the provider with other tools. bench/compare.sh builds the programs and runs this."""

import argparse
import contextlib
import filecmp
import json
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

import durable_writes
import tools
from measure import Failed, Proxy, Run

ROOT = Path(__file__).resolve().parents[2]
MIB = 1024 * 1024
BIG, WHOLE = 256 * MIB, 1024 * MIB
TOOLS = [tool.name for tool in (tools.Ours, tools.OursMounted, tools.Rclone, tools.RcloneMount, tools.S3fs, tools.Gdal,
                                tools.Awscrt, tools.Curl)]
MOUNT_WORKS = "M1 M1r M2 M3 M4 M5 M5w M6 M6w".split()  # for mounts only
WORKS = "W1 W1s W1h W2 W2s W2h W3 W4 W5 W5a W5b W6 W7 W8 W9".split() + MOUNT_WORKS  # W5 is both of W5a and W5b
LIMIT, MOUNT_LIMIT = 300, 120  # seconds for each program; some mounts would take many minutes
TRANSACTIONS, LINES = 1000, 100
MIDDLE = BIG // 2 + 4096  # not on a part boundary of any tool


class Aside:
    """Has the interface of Run, but measures nothing."""

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir()

    def call(self, command, stdout=None):
        with open(stdout or os.devnull, "wb") as sink:
            subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=sink, check=True, timeout=300)


class Gateway:
    """The store: started empty; filled and checked directly with curl, outside the measurement."""

    def __init__(self, scratch):
        self._script("start")
        environment = dict(re.findall(r"export (\w+)=(.*)", self._script("env")))
        # Hide the user's own settings for stores and proxies from the tools.
        for name in os.environ:
            if name.upper().startswith(("AWS", "RCLONE_")) or name.upper().endswith("_PROXY"):
                del os.environ[name]
        os.environ.update(environment, AWS_EC2_METADATA_DISABLED="true")
        self.endpoint = environment["CLOUDFS_TEST_S3_ENDPOINT"].removeprefix("http://")
        self.bucket = environment["CLOUDFS_TEST_S3_BUCKET"]
        self.keys = environment["AWS_ACCESS_KEY_ID"], environment["AWS_SECRET_ACCESS_KEY"]
        self.curl = tools.Curl(self.endpoint, self.bucket, None, *self.keys)
        shutil.rmtree(scratch / "aside", ignore_errors=True)
        self.aside = Aside(scratch / "aside")

    @staticmethod
    def _script(command):
        return subprocess.run([ROOT / "scripts/gateway.sh", command], stdout=subprocess.PIPE, text=True, check=True, timeout=300).stdout

    def put(self, local, key):
        self.curl.write(self.aside, local, key)

    def put_names(self, prefix, names, local):
        self.curl.many(self.aside, [[("upload-file", local), ("url", self.curl.url(f"{prefix}/{name}"))] for name in names])

    def holds(self, key, local):
        back = self.aside.folder / "back"
        self.curl.read(self.aside, key, back)
        same = filecmp.cmp(back, local, shallow=False)
        back.unlink()
        return same

    def put_all(self, folder, prefix):
        self.curl.write_all(self.aside, folder, prefix)

    def files(self, prefix):
        """The keys that start with the prefix, without those of empty objects that mounts make for folders."""
        return [key for key in self.curl.keys(self.aside, prefix) if not key.endswith("/")]

    def fetch_all(self, prefix):
        """Read all files into a new folder."""
        back = self.aside.folder / "all"
        shutil.rmtree(back, ignore_errors=True)
        back.mkdir()
        self.curl.many(self.aside, [[("output", back / key.removeprefix(prefix + "/")), ("url", self.curl.url(key))]
                                    for key in self.files(prefix + "/")], "--create-dirs")
        return back

    def holds_all(self, prefix, folder):
        return same_folders(self.fetch_all(prefix), folder)

    def clear(self, prefix):
        self.curl.clear(self.aside, prefix)

    def stop(self):
        self._script("stop")


def same_folders(left, right):
    def files(folder):
        return sorted(str(path.relative_to(folder)) for path in Path(folder).rglob("*") if path.is_file())

    names = files(right)
    return files(left) == names and filecmp.cmpfiles(left, right, names, shallow=False)[1:] == ([], [])


def git(folder, *arguments, **options):
    """What git prints; None if it fails."""
    done = subprocess.run(["git", "-C", folder, *arguments], stdout=subprocess.PIPE, env=os.environ | tools.GIT,
                          timeout=LIMIT, **options)
    return done.stdout.decode().strip() if done.returncode == 0 else None


class Material:
    """The data that is written and read; the same bytes in every comparison."""

    def __init__(self, folder):
        source = random.Random(20)
        self.big, self.whole, self.patch, self.small = (folder / name for name in ("big", "whole", "patch", "small"))
        self.patch.write_bytes(source.randbytes(1024))
        for path, size in ((self.big, BIG), (self.whole, WHOLE)):
            with open(path, "wb") as target:
                for _ in range(size // (16 * MIB)):
                    target.write(source.randbytes(16 * MIB))
        self.small.mkdir()
        for number in range(500):
            (self.small / f"{number:03}").write_bytes(source.randbytes(4096))
        self.patched, self.appended = folder / "patched", folder / "appended"
        for changed, offset in ((self.patched, MIDDLE), (self.appended, BIG)):
            shutil.copyfile(self.big, changed)
            with open(changed, "r+b") as target:
                target.seek(offset)
                target.write(self.patch.read_bytes())
        self.tree = [f"{folder:03}/{name:03}" for folder in range(100) for name in range(200)]
        self.level = [f"{name:04}" for name in range(2000)]
        self.offsets, self.picked = folder / "offsets", folder / "picked"
        offsets = [source.randrange(BIG - 64 * 1024) for _ in range(1000)]
        self.offsets.write_text("\n".join(map(str, offsets)))
        self._cut(self.big, offsets, 64 * 1024, self.picked)
        self.offset, self.glimpse = folder / "offset", folder / "glimpse"
        self.offset.write_text(str(WHOLE // 2))
        self._cut(self.whole, [WHOLE // 2], 1024, self.glimpse)
        self.many, self.archive, self.repository = (folder / name for name in ("many", "many.tar", "repository"))
        for number in range(20):
            (self.many / f"{number:02}").mkdir(parents=True)
            for name in range(100):
                (self.many / f"{number:02}/{name:02}").write_bytes(source.randbytes(source.randrange(1024, 3072)))
        with tarfile.open(self.archive, "w") as archive:
            archive.add(self.many, ".")
        self._make_repository(source)

    def _make_repository(self, source):
        """Fifty commits. The first makes 300 files, the others change 20 files each."""
        def text():
            return "".join(f"{source.getrandbits(64):016x}\n" for _ in range(120))

        commands = []
        for number in range(50):
            commands.append(f"commit refs/heads/main\ncommitter A <a@example.org> {1600000000 + number} +0000\n"
                            "data 6\nchange\n")
            for file in range(300) if number == 0 else source.sample(range(300), 20):
                content = text()
                commands.append(f"M 100644 inline {file % 10}/{file:03}\ndata {len(content)}\n{content}\n")
        self.repository.mkdir()
        git(self.repository, "init", "--quiet", "--bare", "--initial-branch=main")
        git(self.repository, "fast-import", "--quiet", input="".join(commands).encode())
        self.commit = git(self.repository, "rev-parse", "main")

    @staticmethod
    def _cut(path, offsets, size, target):
        with open(path, "rb") as source, open(target, "wb") as pieces:
            for offset in offsets:
                source.seek(offset)
                pieces.write(source.read(size))


class Works:
    """The kinds of work. Each prepares the store, runs a tool, and returns whether every byte is correct."""

    def __init__(self, gateway, material):
        self._gateway = gateway
        self._material = material
        m = material
        # Columns: name, title, what the store must contain before, the work.
        self.rows = [
            ("W1", "write 256 MiB", [], self._write("write")),
            ("W1s", "write 256 MiB from standard input", [], self._write("write_stream")),
            ("W1h", "write 256 MiB through a stream of the provider", [], self._write("write_as_host")),
            ("W2", "read 256 MiB", ["big"], self._read("read")),
            ("W2s", "read 256 MiB to standard output", ["big"], self._read("read_stream")),
            ("W2h", "read 256 MiB through a stream of the provider", ["big"], self._read("read_as_host")),
            ("W3", "create 500 files of 4 KiB", [], self._write_all),
            ("W4", "read 500 files of 4 KiB", ["small"], self._read_all),
            ("W5a", "list 20,000 objects in 100 folders", ["tree"], self._list("list_all", "tree", m.tree)),
            ("W5b", "list 2,000 objects in one folder", ["level"], self._list("list_level", "level", m.level)),
            ("W6", "change 1 KiB inside 256 MiB", [], self._change("patch", [MIDDLE], m.patched)),
            ("W7", "1,000 random reads of 64 KiB in 256 MiB", ["big"], self._pick("big", 64 * 1024, m.offsets, m.picked)),
            ("W8", "read 1 KiB inside 1 GiB", ["whole"], self._pick("whole", 1024, m.offset, m.glimpse)),
            ("W9", "append 1 KiB to 256 MiB", [], self._change("append", [], m.appended)),
            ("M1", "unpack 2,000 files of 2 KiB in 20 folders", [], self._unpack),
            ("M1r", "remove 2,000 files in 20 folders", [], self._remove_all),
            ("M2", "clone a repository of 300 files and 50 commits", [], self._clone),
            ("M3", f"{TRANSACTIONS:,} transactions of SQLite", [], self._transactions),
            ("M4", f"append {LINES} lines, with an fsync after each", [], self._append_lines),
            ("M5", "list 20,000 files with sizes and times", ["tree"], self._list_details(1)),
            ("M5w", "do that a second time in the same mount", ["tree"], self._list_details(2)),
            ("M6", "read 256 MiB with a cache", ["big"], self._read("read_cached", 1)),
            ("M6w", "do that a second time in the same mount", ["big"], self._read("read_cached", 2)),
        ]

    def fill(self, what):
        if what in ("big", "whole"):
            self._gateway.put(getattr(self._material, what), what)
        elif what == "small":
            self._gateway.put_all(self._material.small, "small")
        else:
            self._gateway.put_names(what, getattr(self._material, what), self._material.patch)

    def _write(self, method):
        def work(tool, run):
            self._gateway.clear("made")
            getattr(tool, method)(run, self._material.big, "made")
            return self._gateway.holds("made", self._material.big)
        return work

    def _read(self, method, *times):
        def work(tool, run):
            back = run.folder / "back"
            getattr(tool, method)(run, "big", back, *times)
            return filecmp.cmp(back, self._material.big, shallow=False)
        return work

    def _write_all(self, tool, run):
        self._gateway.clear("made")
        tool.write_all(run, self._material.small, "made")
        return self._gateway.holds_all("made", self._material.small)

    def _read_all(self, tool, run):
        tool.read_all(run, "small", os.listdir(self._material.small), run.folder / "back")
        return same_folders(run.folder / "back", self._material.small)

    @staticmethod
    def _list(method, prefix, names):
        def work(tool, run):
            out = run.folder / "names"
            getattr(tool, method)(run, prefix, out, names)
            return sorted(out.read_text().split()) == names
        return work

    def _change(self, method, offset, expected):
        def work(tool, run):
            self._gateway.put(self._material.big, "changed")  # undo the change of the previous tool
            getattr(tool, method)(run, "changed", *offset, self._material.patch)
            return self._gateway.holds("changed", expected)
        return work

    @staticmethod
    def _pick(key, size, offsets, expected):
        def work(tool, run):
            out = run.folder / "pieces"
            tool.pick(run, key, size, offsets, out)
            return filecmp.cmp(out, expected, shallow=False)
        return work

    def _unpack(self, tool, run):
        self._gateway.clear("made")
        tool.unpack(run, self._material.archive, "made")
        return self._gateway.holds_all("made", self._material.many)

    def _remove_all(self, tool, run):
        self._gateway.put_all(self._material.many, "removed")
        tool.remove_all(run, "removed")
        return not self._gateway.files("removed")

    def _clone(self, tool, run):
        self._gateway.clear("made")
        tool.clone(run, self._material.repository, "made")
        back = self._gateway.fetch_all("made")
        return (git(back, "rev-parse", "HEAD") == self._material.commit and git(back, "status", "--porcelain") == ""
                and git(back, "fsck", "--strict") is not None)

    def _transactions(self, tool, run):
        self._gateway.clear("made")
        tool.transactions(run, "made/database", TRANSACTIONS)
        back = self._gateway.fetch_all("made")
        if os.listdir(back) != ["database"]:  # a journal is left
            return False
        with contextlib.closing(sqlite3.connect(back / "database")) as database:
            found = database.execute("SELECT * FROM entries ORDER BY number").fetchall()
            return (database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
                    and found == durable_writes.rows(TRANSACTIONS))

    def _append_lines(self, tool, run):
        self._gateway.clear("made")
        tool.append_lines(run, "made", LINES)
        expected = run.folder / "expected"
        expected.write_text("".join(durable_writes.lines(LINES)))
        return self._gateway.holds("made", expected)

    def _list_details(self, times):
        def work(tool, run):
            out, folder, files = run.folder / "details", "", []
            tool.list_details(run, "tree", out, times)
            for line in out.read_text().splitlines():
                if line.endswith(":"):
                    folder = line[-4:-1]
                elif line.startswith("-"):
                    words = line.split()
                    files.append((f"{folder}/{words[-1]}", words[4]))
            return files == [(name, "1024") for name in self._material.tree]
        return work


def measure(tool, work, proxy, folder, limit):
    """The figures of one run, or the reason why there are none."""
    run = Run(proxy, folder, limit)
    try:
        correct = work(tool, run)
    except NotImplementedError:
        return {"cannot": True}
    except (Failed, OSError) as reason:  # a mount that has crashed causes any error
        return {"failed": str(reason)}
    finally:
        figures = run.end()
    return figures if correct else {"failed": "wrong bytes"}


def known(names):
    names = list(names)

    def check(name):
        if name not in names:
            raise argparse.ArgumentTypeError(f"{name} is not one of {', '.join(names)}")
        return name
    return check


def main():
    parser = argparse.ArgumentParser(description=__doc__, prog="bench/compare.sh")
    parser.add_argument("runs", nargs="?", type=int, default=5, metavar="RUNS", help="number of runs; the medians are shown (default 5)")
    parser.add_argument("works", nargs="*", metavar="WORK", help=f"{' '.join(WORKS)} (default: all)", type=known(WORKS))
    parser.add_argument("--tools", help="comma-separated names (default: all)",
                        type=lambda names: list(map(known(TOOLS), names.split(","))), default=TOOLS)
    parser.add_argument("--delays", default="0,20", help="milliseconds added to each response, comma-separated (default 0,20)")
    parser.add_argument("--parameters", default="", help="added to the store URL of cloudfs, such as part-size=262144")
    parser.add_argument("--programs", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--figures", type=Path, required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that started processes are ended

    options.figures.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch, open(options.figures, "w") as figures:
        scratch = Path(scratch)
        material = Material(scratch)
        for delay in map(int, options.delays.split(",")):
            # A new gateway for each delay: deleted objects stay in memory for a while and slow it down.
            Gateway._script("stop")
            gateway = Gateway(scratch)
            try:
                compare(gateway, material, delay, options, scratch, figures)
            finally:
                gateway.stop()


def compare(gateway, material, delay, options, scratch, figures):
    proxy = Proxy(options.programs / "bench/compare/delay_proxy", gateway.endpoint.rsplit(":", 1)[1])
    common = proxy.endpoint, gateway.bucket, options.programs
    contenders = [tools.Ours(*common, options.parameters), tools.OursMounted(*common, options.parameters),
                  tools.Rclone(*common), tools.RcloneMount(*common), tools.S3fs(*common), tools.Gdal(*common),
                  tools.Awscrt(*common), tools.Curl(*common, *gateway.keys)]
    contenders = [tool for tool in contenders if tool.name in options.tools]
    for tool in [tool for tool in contenders if tool.missing()]:
        print(f"{tool.name} is skipped: {tool.missing()}", file=sys.stderr)
        contenders.remove(tool)

    works = Works(gateway, material)
    proxy.delay(delay)
    filled = set()
    for name, title, wanted, work in works.rows:
        if options.works and not {name, name.rstrip("ab")} & set(options.works):
            continue
        for what in set(wanted) - filled:
            works.fill(what)
            filled.add(what)
        able = list(contenders)
        for number in range(options.runs):
            for tool in list(able):  # in turns, so that a change in the machine's speed affects all tools
                limit = MOUNT_LIMIT if name in MOUNT_WORKS else LIMIT
                result = measure(tool, work, proxy, scratch / "run", limit)
                if "wall" not in result:
                    able.remove(tool)
                row = {"work": name, "title": title, "delay": delay, "tool": tool.name, "run": number, **result}
                print(json.dumps(row), file=figures, flush=True)
                show(row)
    proxy.close()


def show(row):
    if "wall" in row:
        text = (f"{row['wall']:8.3f} s {row['cpu']:7.3f} s cpu {row['peak'] / MIB:6.0f} MiB {row['requests']:6} requests "
                f"{row['sent'] / MIB:8.2f} + {row['received'] / MIB:8.2f} MiB")
    else:
        text = "cannot" if "cannot" in row else "failed: " + row["failed"]
    print(f"{row['delay']:2} ms {row['work']:3} {row['tool']:13} {text}", file=sys.stderr)


if __name__ == "__main__":
    main()
