#!/usr/bin/env python3
"""Measure ways to fill a temporary file of 5 MiB with bytes that come in pieces of 64 KiB, and to map and read it.

For each, prints medians of the processor time in milliseconds: of what happens before the file is mapped, of copying the
bytes into the mapping, and of reading them once. TMPDIR names the folder.
docs/decisions/temporary-files-by-plain-write.md has the results.
"""

import ctypes
import mmap
import os
import statistics
import tempfile
import time

SIZE = 5 << 20
RUNS = 60
ZEROS = bytes(65536)
PIECE = bytes([1]) * 65536


def reserve_nothing(_):
    pass


def allocate(descriptor):
    os.posix_fallocate(descriptor, 0, SIZE)


def write_zeros(descriptor):
    os.pwritev(descriptor, [ZEROS] * (SIZE // len(ZEROS)), 0)


def write_the_bytes(descriptor):
    for offset in range(0, SIZE, len(PIECE)):
        os.pwrite(descriptor, PIECE, offset)


def copy(mapped):
    address = ctypes.addressof(mapped)
    for offset in range(0, SIZE, len(PIECE)):
        ctypes.memmove(address + offset, PIECE, len(PIECE))


def nothing(_):
    pass


def measure(prepare, fill, target=ctypes.create_string_buffer(SIZE)):
    with tempfile.TemporaryFile() as file:
        os.ftruncate(file.fileno(), SIZE)
        times = [time.process_time()]
        prepare(file.fileno())
        times.append(time.process_time())
        mapped = (ctypes.c_char * SIZE).from_buffer(mmap.mmap(file.fileno(), SIZE))
        fill(mapped)
        times.append(time.process_time())
        ctypes.memmove(target, mapped, SIZE)
        times.append(time.process_time())
        return [end - begin for begin, end in zip(times, times[1:])] + [times[-1] - times[0]]


for prepare, fill in ((reserve_nothing, copy), (allocate, copy), (write_zeros, copy), (write_the_bytes, nothing)):
    columns = zip(*(measure(prepare, fill) for _ in range(RUNS)))
    print(f"{prepare.__name__:16}", *(f"{1000 * statistics.median(column):6.2f} ms" for column in columns))
