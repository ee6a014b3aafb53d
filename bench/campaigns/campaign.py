"""What the campaigns share: a store of files with known bytes, runs of the program, and the table of counts."""

import argparse
import collections
import hashlib
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

MISSING = None  # the digest of a file that does not exist

SMALL = 3_000  # stored inline by the local store
MEDIUM = 300_000  # one part, in a file of its own
LARGE = 11_500_000  # three parts


def digest(data):
    return MISSING if data is None else hashlib.sha256(data).hexdigest()


def make_bytes(rng, size):
    return rng.randbytes(size)


class Campaign:
    """One run of a campaign: its options, its random numbers, a folder of its own, and its counts."""

    def __init__(self, description, rounds):
        parser = argparse.ArgumentParser(description=description)
        parser.add_argument("program", type=pathlib.Path, help="the cloudfs to test")
        parser.add_argument("--rounds", type=int, default=rounds)
        parser.add_argument("--seed", type=int, default=int(time.time()))
        self.options = parser.parse_args()
        self.program = self.options.program.resolve()
        self.rng = random.Random(self.options.seed)
        self.counts = collections.Counter()
        self.failures = []
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="campaign-"))
        self.buffers = self.folder / "buffers"
        self.buffers.mkdir()
        self.environment = {**os.environ, "TMPDIR": str(self.buffers), "LC_ALL": "C.UTF-8",
                            "AWS_EC2_METADATA_DISABLED": "true", "AZURE_METADATA_DISABLED": "true"}  # fmt: skip

    def command(self, store, *arguments):
        return [str(self.program), "--store", store, *map(str, arguments)]

    def run(self, store, *arguments, data=b"", timeout=60, prefix=()):
        """Run the program to its end. A run that takes longer counts as a hang, one that a signal ends as a crash."""
        command = [*prefix, *self.command(store, *arguments)]
        try:
            done = subprocess.run(command, input=data, capture_output=True, timeout=timeout, env=self.environment)
        except subprocess.TimeoutExpired:
            self.fail("hang", f"{arguments} took more than {timeout} s")
            return None
        if done.returncode < 0 or done.returncode >= 128:
            self.fail("signal", f"{arguments}: exit {done.returncode}: {done.stderr[-300:]!r}")
        return done

    def fail(self, kind, text):
        self.counts[kind] += 1
        self.failures.append(f"{kind}: {text}")
        print(f"seed {self.options.seed}: {kind}: {text}", file=sys.stderr)

    def finish(self, title, zeros):
        """Print one row of the table. The campaign fails if one of the counts in `zeros` is not 0."""
        bad = [name for name in zeros if self.counts[name]]
        shown = [f"{count} {name}" for name, count in self.counts.items() if name not in zeros]
        shown += [f"{self.counts[name]} {name}" for name in zeros]
        print(f"| {title} | {self.options.rounds} | {', '.join(shown)} |")
        if bad:
            print(f"kept for diagnosis: {self.folder}; repeat with --seed {self.options.seed}", file=sys.stderr)
        else:
            shutil.rmtree(self.folder)
        sys.exit(1 if bad else 0)
