"""Change a file at random in every way that programs do, and compare it with a copy in memory.

Usage: random_operations.py FOLDER OPERATIONS SEED
"""

import ctypes
import errno
import mmap
import os
import random
import sys

MAX_SIZE = 600_000
PUNCH_HOLE = 3  # and keep the size

folder, operations, seed = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
random.seed(seed)
libc = ctypes.CDLL(None, use_errno=True)
names = [os.path.join(folder, name) for name in ("random", "renamed")]
copy = bytearray()
file = os.open(names[0], os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o644)

def check(actual, expected, what):
    if actual != expected:
        at = next((i for i, pair in enumerate(zip(actual, expected)) if pair[0] != pair[1]), "the end")
        sys.exit(f"seed {seed}, operation {step}: {what} differs at {at}: {len(actual)} of {len(expected)} bytes")

def put(at, data):
    copy.extend(bytes(max(0, at - len(copy))))
    copy[at : at + len(data)] = data

for step in range(operations):
    kind = random.choices(
        ("write", "read", "truncate", "map", "punch", "rename", "reopen", "empty", "sync", "stat", "append"),
        (300, 250, 60, 120, 30, 30, 50, 2, 30, 30, 30))[0]
    at = random.randrange(min(len(copy) + 5000, MAX_SIZE))
    size = random.randrange(1, 20_000)
    if kind == "write":
        data = random.randbytes(size)
        os.pwrite(file, data, at)
        put(at, data)
    elif kind == "append" and len(copy) < MAX_SIZE:
        data = random.randbytes(size)
        appender = os.open(names[0], os.O_WRONLY | os.O_APPEND)
        os.write(appender, data)
        os.close(appender)
        put(len(copy), data)
    elif kind == "read":
        check(os.pread(file, size, at), copy[at : at + size], "a read")
    elif kind == "truncate":
        os.truncate(names[0] if size % 2 else file, at)
        del copy[at:]
        put(at, b"")
    elif kind == "map" and at < len(copy):
        with mmap.mmap(file, len(copy)) as view:
            check(view[at : at + size], copy[at : at + size], "a mapping")
            data = random.randbytes(min(size, len(copy) - at))
            view[at : at + size] = data
            put(at, data)
            if step % 2:
                view.flush()
    elif kind == "punch" and at < len(copy):
        if libc.fallocate(file, PUNCH_HOLE, ctypes.c_long(at), ctypes.c_long(size)) == 0:
            put(at, bytes(min(size, len(copy) - at)))
        elif ctypes.get_errno() != errno.EOPNOTSUPP:
            sys.exit(f"seed {seed}, operation {step}: punching a hole: {os.strerror(ctypes.get_errno())}")
    elif kind == "rename":
        os.rename(*names)
        names.reverse()
    elif kind in ("reopen", "empty"):
        os.close(file)
        file = os.open(names[0], os.O_RDWR | (os.O_TRUNC if kind == "empty" else 0))
        copy = bytearray() if kind == "empty" else copy
    elif kind == "sync":
        os.fsync(file)
    elif kind == "stat":
        check(bytes(os.stat(names[0]).st_size), bytes(len(copy)), "the size")
os.close(file)
with open(names[0], "rb") as whole:
    check(whole.read(), copy, "the whole file")
