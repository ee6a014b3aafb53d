#!/usr/bin/env python3
"""Cut the power at random instants while the program changes a local store, and check what is then on the disk.

The disk is replayed: each file has the bytes of its last sync or the latest, and each folder the names of its last sync
or the latest. Every file must be one of the versions that the command was storing or replacing, and after the end of
the command it must be the new one.
"""

import pathlib
import subprocess

from campaign import MEDIUM, SMALL, Campaign, digest, make_bytes

BOOT = pathlib.Path("/proc/sys/kernel/random/boot_id").read_bytes().strip()
SIZES = {"small": SMALL, "medium": MEDIUM, "parts": 3 * MEDIUM}


class Power(Campaign):
    def __init__(self):
        super().__init__(__doc__, rounds=500)
        self.environment["ZV_CLOUD_PART_SIZE_OVERRIDE"] = str(MEDIUM)  # so that "parts" has three
        self.recorder = self.folder / "record_syncs.so"
        source = pathlib.Path(__file__).with_name("record_syncs.cpp")
        subprocess.run(["c++", "-std=c++20", "-shared", "-fPIC", "-o", self.recorder, source], check=True)
        self.recording = self.folder / "recording"
        self.store_folder = self.folder / "store"
        self.store = f"local:{self.store_folder}"
        self.files = {name: None for name in SIZES}  # in the store → their bytes

    def plan(self):
        """Choose a command. Return its arguments, input and what it does to the files."""
        present = [name for name, data in self.files.items() if data is not None]
        kind = self.rng.choice(["put", "put", "put -r", "write", "mv", "rm"] if present else ["put"])
        name = self.rng.choice(list(SIZES) if kind == "put" else present or [None])
        if kind == "put":
            data = make_bytes(self.rng, SIZES[name])
            return ["put", "-f", "-", name], data, {name: data}
        if kind == "put -r":
            new = {name: make_bytes(self.rng, size) for name, size in SIZES.items()}
            tree = self.folder / "tree"
            tree.mkdir(exist_ok=True)
            for name, data in new.items():
                (tree / name).write_bytes(data)
            return ["put", "-rf", f"{tree}/.", "/"], b"", new
        old = self.files[name]
        if kind == "rm":
            return ["rm", name], b"", {name: None}
        if kind == "mv":
            target = self.rng.choice([other for other in SIZES if other != name])
            return ["mv", "-f", name, target], b"", {target: old, name: None}
        patch = make_bytes(self.rng, self.rng.randrange(1, 70_000))
        offset = self.rng.randrange(len(old))
        return (["write", name, "--offset", str(offset)], patch,
                {name: old[:offset] + patch + old[offset + len(patch) :]})  # fmt: skip

    def stored(self):
        """The files of the store by path, and their bytes, by number."""
        files = [file for file in self.store_folder.rglob("*") if file.is_file()]
        return ({file: file.stat().st_ino for file in files}, {file.stat().st_ino: file.read_bytes() for file in files})

    def disks(self, names, contents):
        """What the disk can have if the power fails before each sync of the command, and after its end."""
        synced_names, synced = dict(names), dict(contents)
        number = 0
        while (listed := self.recording / f"{number}.names").exists():
            lines = (line.split(" ", 1) for line in listed.read_text().splitlines())
            names = {pathlib.Path(path): int(file) for file, path in lines}
            for file in names.values():
                if (changed := self.recording / f"{number}.{file}").exists():
                    contents[file] = changed.read_bytes()
            yield number, self.choose_disk(synced_names, synced, names, contents)
            what = listed.with_suffix(".synced").read_text()
            if what.isdigit():
                synced[int(what)] = contents.get(int(what), b"")
            else:
                folder = pathlib.Path(what)
                synced_names = {path: file for path, file in synced_names.items() if path.parent != folder}
                synced_names |= {path: file for path, file in names.items() if path.parent == folder}
            number += 1
        yield None, self.choose_disk(synced_names, synced, *self.stored())

    def choose_disk(self, synced_names, synced, names, contents):
        """Lose what was not synced, or only the bytes, or only the names, or some bytes."""
        kept = self.rng.choice([synced_names, names])
        lost = self.rng.choice([0, 0.5, 1])
        return {path: (synced if self.rng.random() < lost else contents).get(file, b"") for path, file in kept.items()}

    def read(self, disk):
        """Read the store that is on this disk."""
        root = self.folder / "disk"
        for folder in [self.store_folder, *self.store_folder.rglob("*")]:
            if folder.is_dir():
                (root / folder.relative_to(self.store_folder)).mkdir(parents=True, mode=0o700)
        for path, data in disk.items():
            (root / path.relative_to(self.store_folder)).write_bytes(data.replace(BOOT, b"of an earlier start"))
        target = self.folder / "copy"
        done = self.run(f"local:{root}", "get", "-r", "/", target)
        found = {name: (target / name).read_bytes() if (target / name).exists() else None for name in SIZES}
        subprocess.run(["rm", "-rf", root, target], check=True)
        if done is not None and done.returncode != 0 and any(self.files.values()):
            self.fail("unreadable", f"{done.stderr!r}")
        return found

    def check(self, arguments, number, disk, effects):
        self.counts["losses of power"] += 1
        context = f"{arguments[0]} after {'its end' if number is None else f'{number} syncs'}"
        found = self.read(disk)
        for name, old in self.files.items():
            new = effects.get(name, old)
            if digest(found[name]) not in map(digest, [new] if number is None else [old, new]):
                self.fail("undone" if digest(found[name]) == digest(old) else "torn", f"{name}: {context}")
        if arguments[0] == "mv":
            target, source = effects
            if found[source] is None and digest(found[target]) != digest(effects[target]):
                self.fail("lost", f"{source}: {context}")

    def main(self):
        for _ in range(self.options.rounds):
            arguments, data, effects = self.plan()
            names, contents = self.stored()
            self.recording.mkdir()
            self.store_folder.mkdir(exist_ok=True)
            self.environment |= {"LD_PRELOAD": str(self.recorder), "RECORDED": str(self.store_folder),
                                 "RECORDING": str(self.recording)}  # fmt: skip
            done = self.run(self.store, *arguments, data=data)
            del self.environment["LD_PRELOAD"]
            if done is None or done.returncode != 0:
                self.fail("failed", f"{arguments}: {done}")
                break
            *before, end = self.disks(names, contents)
            for number, disk in [*self.rng.sample(before, min(3, len(before))), end]:
                self.check(arguments, number, disk, effects)
            self.files |= effects
            subprocess.run(["rm", "-rf", self.recording], check=True)
        self.finish("losses of power during put, write, mv, rm, put -r",
                    ["torn", "lost", "undone", "unreadable", "failed", "hang", "signal"])  # fmt: skip


Power().main()
