#!/usr/bin/env python3
"""Damage a local store in every way that a disk or a person can, and check that no command takes the damage for data.

Each round damages a copy of one intact store, then lists it and reads every file. A command may fail, but must not
succeed with other bytes, other names or other sizes than were stored, must not call a stored file missing, must not
hang and must not be ended by a signal. One of two stores has transactions that are only in the log of its index.
"""

import os
import shutil
import signal
import subprocess
import time

from campaign import LARGE, MEDIUM, SMALL, Campaign, make_bytes

SILENT = ["wrong bytes", "wrong listing", "called missing"]


class Damage(Campaign):
    def __init__(self):
        super().__init__(__doc__, rounds=500)
        self.intact = self.folder / "intact"
        self.store = f"local:{self.intact}"
        self.files = {f"small{n:03}": make_bytes(self.rng, SMALL) for n in range(60)}
        self.files |= {f"medium{n}": make_bytes(self.rng, MEDIUM) for n in range(4)}
        self.files["large"] = make_bytes(self.rng, LARGE)
        source = self.folder / "tree"
        source.mkdir()
        for name, data in self.files.items():
            (source / name).write_bytes(data)
        self.run(self.store, "put", "-r", source, "/")
        # The log of a store holds committed transactions until the last client closes: keep one client alive meanwhile.
        client = subprocess.Popen(
            self.command(self.store, "put", "-f", "-", "tree/small000"), stdin=subprocess.PIPE,
            env=self.environment)  # fmt: skip
        while not (self.intact / "index.sqlite-wal").exists():
            time.sleep(0.01)
        for name in ("small001", "medium1"):
            self.files[name] = make_bytes(self.rng, len(self.files[name]))
            self.run(self.store, "put", "-f", "-", f"tree/{name}", data=self.files[name])
        client.send_signal(signal.SIGKILL)
        client.wait()
        without_log = self.folder / "without-log"
        shutil.copytree(self.intact, without_log)
        self.run(f"local:{without_log}", "put", "-f", "-", "tree/small000", data=self.files["small000"])
        self.stores = [self.intact, without_log]

    # The ways of damage. Each gets the folder of a store and describes what it did.

    def contents(self, store):
        return sorted(file for file in (store / "contents").rglob("*") if file.is_file())

    def index(self, store):
        files = [store / name for name in ("index.sqlite", "index.sqlite-wal") if (store / name).exists()]
        return self.rng.choice([file for file in files if file.stat().st_size])

    def flip(self, file):
        offset = self.rng.randrange(file.stat().st_size)
        with file.open("r+b") as stream:
            stream.seek(offset)
            byte = stream.read(1)[0]
            stream.seek(offset)
            stream.write(bytes([byte ^ 1 << self.rng.randrange(8)]))
        return f"one bit of {file.name} at {offset}"

    def cut(self, file):
        size = self.rng.randrange(file.stat().st_size)
        os.truncate(file, size)
        return f"{file.name} cut to {size}"

    def flip_content(self, store):
        return self.flip(self.rng.choice(self.contents(store)))

    def cut_content(self, store):
        return self.cut(self.rng.choice(self.contents(store)))

    def swap_contents(self, store):
        files = self.contents(store)
        size = self.rng.choice([file.stat().st_size for file in files if file.stat().st_size == MEDIUM])
        one, other = self.rng.sample([file for file in files if file.stat().st_size == size], 2)
        one.rename(store / "swap")
        other.rename(one)
        (store / "swap").rename(other)
        return f"{one.name} and {other.name} swapped"

    def delete_content(self, store):
        file = self.rng.choice(self.contents(store))
        file.unlink()
        return f"{file.name} deleted"

    def replace_content_by_fifo(self, store):
        file = self.rng.choice(self.contents(store))
        file.unlink()
        os.mkfifo(file)
        return f"{file.name} replaced by a FIFO"

    def flip_index(self, store):
        return self.flip(self.index(store))

    def cut_index(self, store):
        return self.cut(self.index(store))

    def swap_index_pages(self, store):
        return self.change_page(store, lambda pages, one, other: (pages[other], pages[one]), "swapped")

    def zero_index_page(self, store):
        return self.change_page(store, lambda pages, one, other: (bytes(len(pages[one])), pages[other]), "zeroed")

    def stale_index_page(self, store):
        return self.change_page(store, lambda pages, one, other: (pages[other], pages[other]), "overwritten")

    def change_page(self, store, change, what):
        file = store / "index.sqlite"
        data = file.read_bytes()
        size = int.from_bytes(data[16:18], "big")
        pages = [data[at : at + size] for at in range(0, len(data), size)]
        one, other = self.rng.sample(range(len(pages)), 2)
        pages[one], pages[other] = change(pages, one, other)
        file.write_bytes(b"".join(pages))
        return f"index pages {one} and {other} {what}"

    def check(self, store, what):
        detected = False
        listing = self.run(store, "ls", "-R", "--files", "/", timeout=20)
        if listing is not None:
            names = {line.decode() for line in listing.stdout.splitlines()}
            if listing.returncode != 0:
                detected = True
            elif names != {f"tree/{name}" for name in self.files}:
                self.fail("wrong listing", what)
        for name, data in self.files.items():
            done = self.run(store, "cat", f"tree/{name}", timeout=20)
            if done is None:
                continue
            if done.returncode != 0:
                detected = True
                if b"(code 4 " in done.stderr or b"no such" in done.stderr.lower():
                    self.fail("called missing", f"{name}: {what}: {done.stderr!r}")
            elif done.stdout != data:
                self.fail("wrong bytes", f"{name}: {what}")
        self.counts["reported" if detected else "without effect"] += 1

    def main(self):
        ways = [self.flip_content, self.cut_content, self.swap_contents, self.delete_content,
                self.replace_content_by_fifo, self.flip_index, self.flip_index, self.flip_index, self.cut_index,
                self.swap_index_pages, self.zero_index_page, self.stale_index_page]  # fmt: skip
        store = self.folder / "damaged"
        for number in range(self.options.rounds):
            shutil.copytree(self.rng.choice(self.stores), store)
            what = ways[number % len(ways)](store)
            self.check(f"local:{store}", what)
            shutil.rmtree(store)
        self.finish("damages of a local store", [*SILENT, "hang", "signal"])


Damage().main()
