#!/usr/bin/env python3
"""Measure three ways to reserve the disk space of a temporary file of 5 MiB that is then mapped and written.

For each, prints the median CPU time of the reservation and of the first touch of all pages, in milliseconds.
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


def reserve_nothing(_):
    pass


def allocate(descriptor):
    os.posix_fallocate(descriptor, 0, SIZE)


def write_zeros(descriptor):
    os.pwritev(descriptor, [ZEROS] * (SIZE // len(ZEROS)), 0)


def measure(reserve):
    with tempfile.TemporaryFile() as file:
        os.ftruncate(file.fileno(), SIZE)
        begin = time.process_time()
        reserve(file.fileno())
        reserved = time.process_time() - begin
        mapped = (ctypes.c_char * SIZE).from_buffer(mmap.mmap(file.fileno(), SIZE))
        begin = time.process_time()
        ctypes.memset(mapped, 1, SIZE)
        return reserved, time.process_time() - begin


for method in (reserve_nothing, allocate, write_zeros):
    times = zip(*(measure(method) for _ in range(RUNS)))
    print(f"{method.__name__:16}", *(f"{1000 * statistics.median(column):6.2f} ms" for column in times))
