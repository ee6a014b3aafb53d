#!/usr/bin/env python3
"""Work on a bucket through a proxy that resets, stalls, cuts and refuses requests, and check every file afterwards.

With --flips, the proxy changes one bit of one body for each command instead, and the counts say what noticed it. Needs
a gateway: run it through bench/campaigns.sh.
"""

import os
import subprocess
import sys
import threading
import urllib.parse

import proxy
from campaign import LARGE, MEDIUM, SMALL, Campaign, digest, make_bytes


class Network(Campaign):
    def __init__(self):
        self.flips = "--flips" in sys.argv
        if self.flips:
            sys.argv.remove("--flips")
        super().__init__(__doc__, rounds=500 if self.flips else 1000)
        store = urllib.parse.urlsplit(os.environ["CLOUDFS_TEST_S3_ENDPOINT"])
        self.lock = threading.Lock()  # guards what the proxy's threads use: rng, faults and flip
        self.flip = None  # the direction, the number of bodies to skip, and the bit of the next flip
        self.faults = 0
        self.proxy = proxy.Proxy(store.hostname, store.port, self.choose)
        bucket = f"campaign-{os.getpid()}"
        access, secret, region = (os.environ[f"AWS_{name}"] for name in ("ACCESS_KEY_ID", "SECRET_ACCESS_KEY", "REGION"))
        subprocess.run(["curl", "-sSf", "-X", "PUT", "-K", "-", "--aws-sigv4", f"aws:amz:{region}:s3",
                        "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", f"{store.geturl()}/{bucket}"],
                       input=f'user="{access}:{secret}"'.encode(), check=True)  # fmt: skip
        self.direct = f"s3://{bucket}?endpoint={store.geturl()}&path-style=1"
        self.store = f"s3://{bucket}?endpoint=http://127.0.0.1:{self.proxy.port}&path-style=1"
        self.files = {name: make_bytes(self.rng, size) for name, size in
                      (("small", SMALL), ("medium", MEDIUM), ("large", LARGE))}  # fmt: skip
        for name, data in self.files.items():
            if self.run(self.direct, "put", "-", name, data=data).returncode != 0:
                sys.exit("the store could not be made")

    def choose(self, request):
        with self.lock:
            if self.flips or self.rng.random() > 0.15:
                return self.pass_with_flip if self.flip else None
            self.faults += 1
            return proxy.stall if self.rng.random() < 0.01 else self.rng.choice(proxy.FAULTS)

    def pass_with_flip(self, forwarder, request, client):
        """Flip one bit of this request's body or its response's, if it has one and none was flipped before."""
        body = self.flip_once("sent", request.body) if request.method in ("PUT", "POST") else request.body
        head, response = proxy.split(forwarder.forward(request, body))
        if request.method == "GET":
            response = self.flip_once("received", response)
        client.sendall(head + response)

    def flip_once(self, direction, body):
        with self.lock:
            if not body or self.flip is None or self.flip[0] != direction:
                return body
            _, skipped, number = self.flip
            self.flip = (direction, skipped - 1, number) if skipped else None
            return body if skipped else proxy.flip(body, number)

    def plan(self):
        """A command, its input and what it does to the files."""
        present = [name for name, data in self.files.items() if data is not None]
        kind = self.rng.choice(["put", "cat", "write", "mv", "rm"] if present else ["put"])
        name = self.rng.choice(list(self.files) if kind == "put" else present)
        if kind == "put":
            data = make_bytes(self.rng, {"small": SMALL, "medium": MEDIUM, "large": LARGE}[name])
            return ["put", "-f", "-", name], data, {name: data}
        old = self.files[name]
        if kind == "cat":
            return ["cat", name], b"", {}
        if kind == "rm":
            return ["rm", name], b"", {name: None}
        if kind == "mv":
            target = self.rng.choice([other for other in self.files if other != name])
            return ["mv", "-f", name, target], b"", {target: old, name: None}
        patch = make_bytes(self.rng, self.rng.randrange(1, 70_000))
        offset = self.rng.randrange(len(old))
        return (["write", name, "--offset", str(offset)], patch,
                {name: old[:offset] + patch + old[offset + len(patch) :]})  # fmt: skip

    def check(self, arguments, done, effects):
        """Read the files that the command could change, past the proxy."""
        self.counts["succeeded" if done.returncode == 0 else "failed"] += 1
        if arguments[0] == "cat" and done.returncode == 0 and done.stdout != self.files[arguments[1]]:
            self.fail("wrong bytes", f"{arguments}")
        for name, new in effects.items():
            read = self.run(self.direct, "cat", name)
            found = read.stdout if read.returncode == 0 else None
            allowed = [new] if done.returncode == 0 else [new, self.files[name]]
            if digest(found) not in map(digest, allowed):
                self.fail("wrong bytes", f"{name} after {arguments}: exit {done.returncode} {done.stderr!r}")
            self.files[name] = found
        if left := list(self.buffers.iterdir()):
            self.fail("left over", f"{arguments}: {left}")

    def work_through_faults(self):
        for _ in range(self.options.rounds):
            arguments, data, effects = self.plan()
            done = self.run(self.store, *arguments, data=data, timeout=600)
            if done is not None:
                self.check(arguments, done, effects)
        self.counts["faults injected"] = self.faults
        uploads = self.run(self.direct, "uploads", "list").stdout
        self.counts["uploads left open"] = len(uploads.splitlines())
        self.finish("commands through a faulty proxy", ["wrong bytes", "left over", "hang", "signal"])

    def work_through_flips(self):
        for number in range(self.options.rounds):
            name = self.rng.choice(list(self.files))
            data = make_bytes(self.rng, len(self.files[name]))
            direction = "sent" if number % 2 else "received"
            bodies = {"small": 1, "medium": 2, "large": 4}[name]  # not the same one each time
            self.flip = (direction, self.rng.randrange(bodies), self.rng.randrange(1 << 40))
            if direction == "sent":
                done = self.run(self.store, "put", "-f", "-", name, data=data)
                self.files[name] = found = self.run(self.direct, "cat", name).stdout
            else:
                done = self.run(self.store, "cat", name)
                data, found = self.files[name], done and done.stdout
            if self.flip is not None:
                self.counts["without so many bodies"] += 1
            elif done is not None and done.returncode == 0:
                if found == data:
                    self.counts[f"{direction} and corrected"] += 1
                elif direction == "received":
                    self.counts["received in a range, which carries no checksum, and unnoticed"] += 1
                else:
                    self.fail("unnoticed", f"{direction} {name}")
            else:
                self.counts[f"{direction} and refused"] += 1
        self.finish("bodies with a flipped bit", ["unnoticed", "hang", "signal"])


network = Network()
network.work_through_flips() if network.flips else network.work_through_faults()
