#!/usr/bin/python3
"""Write to one file, each time until the system says that it is stored.

Usage: durable_writes.py transactions|lines FILE COUNT

"transactions" are of SQLite, with one insert each, in its default journal mode, in a new folder. "lines" are appended,
with an fsync after each.
"""

import contextlib
import os
import sqlite3
import sys


def rows(count):
    return [(number, f"entry {number:04} " * 8) for number in range(count)]


def lines(count):
    return [f"line {number:04}\n" for number in range(count)]


def main():
    verb, path, count = sys.argv[1:]
    if verb == "transactions":
        os.mkdir(os.path.dirname(path))
        # Without an isolation level, each statement is a transaction.
        with contextlib.closing(sqlite3.connect(path, isolation_level=None)) as database:
            database.execute("CREATE TABLE entries (number INTEGER PRIMARY KEY, text TEXT)")
            for row in rows(int(count)):
                database.execute("INSERT INTO entries VALUES (?, ?)", row)
    else:
        with open(path, "a") as file:
            for line in lines(int(count)):
                file.write(line)
                file.flush()
                os.fsync(file.fileno())


if __name__ == "__main__":
    main()
