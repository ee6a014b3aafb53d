"""Change files until their mount is killed; after the next mount, check that what was written has come back.

Usage: confirmed_writes.py write FOLDER STATE SEED      until a call fails; then write into STATE what the files must be
       confirmed_writes.py confirmed FOLDER STATE       check that each file is as at its last close or fsync, or newer
       confirmed_writes.py latest FOLDER STATE          check that all calls that returned have happened
"""

import os
import pickle
import random
import sys

FOLDERS = ["first", "second"]

def read(path):
    """None: there is no such file."""
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return None

def is_mix(actual, old, new):
    """Whether each byte is an old or a new one: the write did not return."""
    if actual is None or old is None or new is None:
        return actual in (old, new)
    pad = max(len(old), len(new))
    return len(actual) in range(min(len(old), len(new)), pad + 1) and all(
        a in (b, c) for a, b, c in zip(actual, old.ljust(pad), new.ljust(pad)))

class Writer:
    def __init__(self, root):
        self.root = root
        self.folder = next((name for name in FOLDERS if os.path.isdir(os.path.join(root, name))), FOLDERS[0])
        os.path.isdir(self.path("")) or os.mkdir(self.path(""))
        self.files = {name: [read(self.path(name))] for name in os.listdir(self.path(""))}  # the last is the latest
        self.doubt = {}  # what the call that has not returned makes of each file
        self.other = None  # where it moves the folder

    def path(self, name):
        return os.path.join(self.root, self.folder, name)

    def change(self, name, new, call):
        self.doubt = {name: new}
        call()
        self.files.setdefault(name, [None]).append(new)
        self.doubt = {}

    def write(self, name, file, at, data):
        def call():
            if os.pwrite(file, data, at) < len(data):
                raise OSError("a short write")
        old = self.files[name][-1]
        self.change(name, old[:at].ljust(at, b"\0") + data + old[at + len(data) :], call)

    def rename(self, old, new):
        self.doubt = {old: None, new: self.files[old][-1]}
        os.rename(self.path(old), self.path(new))
        self.files[new] = self.files.pop(old)
        self.doubt = {}

    def move_folder(self):
        self.other = FOLDERS[1 - FOLDERS.index(self.folder)]
        os.rename(self.path(""), os.path.join(self.root, self.other))
        self.folder, self.other = self.other, None

    def step(self):
        name, other = (f"file{random.randrange(8)}" for _ in range(2))
        self.doubt = {} if name in self.files else {name: b""}
        file = os.open(self.path(name), os.O_RDWR | os.O_CREAT)
        self.files.setdefault(name, [None, b""])
        self.doubt = {}
        if random.random() < 0.3:
            self.change(name, b"", lambda: os.ftruncate(file, 0))
        for _ in range(random.randrange(30 if random.random() < 0.05 else 4)):
            size = random.choice((100, 20_000, 1 << 20))
            self.write(name, file, random.randrange(len(self.files[name][-1]) + 100), random.randbytes(size))
            if random.random() < 0.2:
                os.fsync(file)
                del self.files[name][:-1]
            if random.random() < 0.1 and other != name:
                self.rename(name, other)
                name, other = other, name
            if random.random() < 0.05:
                self.move_folder()
        os.close(file)
        del self.files[name][:-1]
        if random.random() < 0.1:
            self.change(name, None, lambda: os.unlink(self.path(name)))
            del self.files[name]

def check(root, state, latest):
    folders = [name for name in FOLDERS if os.path.isdir(os.path.join(root, name))]
    if len(folders) != 1 or folders[0] not in (state["folder"], state["other"]):
        names = [os.listdir(os.path.join(root, name)) for name in folders]
        return f"the folder is {folders} instead of {state['folder']}, moving to {state['other']}: {names}"
    found = {name: read(os.path.join(root, folders[0], name)) for name in state["files"].keys() | state["doubt"].keys()}
    for name, actual in found.items():
        versions = state["files"].get(name, [None])
        is_new = name in state["doubt"] and is_mix(actual, versions[-1], state["doubt"][name])
        if actual not in (versions[-1:] if latest else versions) and not is_new:
            sizes = [None if each is None else len(each) for each in (actual, *versions)]
            doubt = {key: value and len(value) for key, value in state["doubt"].items()}
            return f"{name} is not a version it may be; sizes: {sizes}, not returned: {doubt}"
    is_renamed = len(state["doubt"]) == 2
    moved = [versions for name, versions in state["files"].items() if name in state["doubt"] and is_renamed]
    if moved and all(actual not in moved[0] for actual in found.values()):
        return f"{list(state['doubt'])}: lost while it was renamed"
    return None

mode, root, state_path = sys.argv[1:4]
if mode == "write":
    random.seed(int(sys.argv[4]))
    writer = Writer(root)
    try:
        while True:
            writer.step()
    except OSError as error:
        print(error)
    with open(state_path, "wb") as out:
        pickle.dump({key: getattr(writer, key) for key in ("files", "doubt", "folder", "other")}, out)
else:
    with open(state_path, "rb") as saved:
        sys.exit(check(root, pickle.load(saved), mode == "latest"))
