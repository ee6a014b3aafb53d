#!/usr/bin/env python3
"""Work on a distant store through a proxy that resets, stalls, cuts and refuses requests, and check every file
afterwards. The store is a bucket, or the container of Azurite if that is what the environment names.

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

STALL_EVERY = 50  # faults: each stall lasts about 40 s, until the client gives the connection up

# What a flip can be noticed by, and what the log says then.
NOTICED_BY = {
    b"XAmzContentSHA256Mismatch": "the signed hash of the request",
    b"contentMD5 doesn't match": "the MD5 of the request",
    b"do not match their hash": "the hash of the response",
    b"NoSuchUpload": "the store, which has no upload of that id",
}


class Network(Campaign):
    def __init__(self):
        self.flips = "--flips" in sys.argv
        if self.flips:
            sys.argv.remove("--flips")
        super().__init__(__doc__, rounds=500 if self.flips else 1000)
        self.is_azure = "CLOUDFS_TEST_AZURE_ENDPOINT" in os.environ
        self.where = ", Azurite" if self.is_azure else ""
        kind = "AZURE" if self.is_azure else "S3"
        store = urllib.parse.urlsplit(os.environ[f"CLOUDFS_TEST_{kind}_ENDPOINT"])
        self.lock = threading.Lock()  # guards what the proxy's threads use: rng, faults and flip
        self.flip = None  # the direction, the number of bodies to skip, and the bit of the next flip
        self.faults = 0
        self.proxy = proxy.Proxy(store.hostname, store.port, self.choose)
        name = f"campaign-{os.getpid()}"
        proxied = store._replace(netloc=f"127.0.0.1:{self.proxy.port}")
        self.direct, self.store = (self.url(place, name) for place in (store, proxied))
        self.is_azure or self.make_bucket(store, name)
        self.files = {name: make_bytes(self.rng, size) for name, size in
                      (("small", SMALL), ("medium", MEDIUM), ("large", LARGE))}  # fmt: skip
        for name, data in self.files.items():
            if self.run(self.direct, "put", "-", name, data=data).returncode != 0:
                sys.exit("the store could not be made")

    def url(self, endpoint, name):
        if self.is_azure:
            account, container = (os.environ[name] for name in
                                  ("AZURE_STORAGE_ACCOUNT", "CLOUDFS_TEST_AZURE_CONTAINER"))  # fmt: skip
            return f"azure://{account}/{container}/{name}?endpoint={endpoint.geturl()}"
        return f"s3://{name}?endpoint={endpoint.geturl()}&path-style=1"

    @staticmethod
    def make_bucket(store, name):
        access, secret, region = (os.environ[name] for name in
                                  ("AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY", "AWS_REGION"))  # fmt: skip
        subprocess.run(["curl", "-sSf", "-X", "PUT", "-K", "-", "--aws-sigv4", f"aws:amz:{region}:s3",
                        "-H", "x-amz-content-sha256: UNSIGNED-PAYLOAD", f"{store.geturl()}/{name}"],
                       input=f'user="{access}:{secret}"'.encode(), check=True)  # fmt: skip

    def choose(self, request):
        with self.lock:
            if self.flips or self.rng.random() > 0.15:
                return self.pass_with_flip if self.flip else None
            fault = proxy.stall if self.faults % STALL_EVERY == 0 else self.rng.choice(proxy.FAULTS)
            self.faults += 1
            return fault

    def pass_with_flip(self, forwarder, request, client):
        """Flip one bit of this request's body or its response's, if it has one and none was flipped before."""
        head, response = proxy.split(forwarder.forward(request, self.flip_once("sent", request.body)))
        client.sendall(head + self.flip_once("received", response))

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
        self.counts["of them stalls"] = -(-self.faults // STALL_EVERY)
        uploads = self.run(self.direct, "uploads", "list").stdout
        self.counts["uploads left open"] = len(uploads.splitlines())
        self.finish("commands through a faulty proxy" + self.where, ["wrong bytes", "left over", "hang", "signal"])

    def work_through_flips(self):
        for number in range(self.options.rounds):
            name = self.rng.choice(list(self.files))
            data = make_bytes(self.rng, len(self.files[name]))
            # Not the same body each time. The first one of a cat from a bucket may be a single byte, to look a file up.
            # The only body that a put receives is the result of its completion.
            kind, direction, bodies = [("cat", "received", {"small": 2, "medium": 3, "large": 5}[name]),
                                       ("put", "sent", {"small": 1, "medium": 1, "large": 4}[name]),
                                       ("put", "received", 2)][number % 5 // 2]  # fmt: skip
            self.flip = (direction, self.rng.randrange(bodies), self.rng.randrange(1 << 40))
            if kind == "put":
                done = self.run(self.store, "-v", "put", "-f", "-", name, data=data)
                found = self.run(self.direct, "cat", name).stdout
            else:
                done = self.run(self.store, "-v", "cat", name)
                data, found = self.files[name], done and done.stdout
            if done is not None:
                self.count_flip(f"{kind} {name}", direction, done, found == data)
            self.files[name] = data if kind == "cat" else found
        self.finish("bodies with a flipped bit" + self.where, ["wrong bytes", "hang", "signal"])

    def count_flip(self, command, direction, done, is_right):
        noticed = [name for text, name in NOTICED_BY.items() if text in done.stderr]
        if self.flip is not None:
            self.counts["not flipped: fewer bodies"] += 1
        elif done.returncode != 0 or noticed:
            self.counts[f"{direction}, noticed by {noticed[0] if noticed else 'something else'}"] += 1
        elif is_right:
            self.counts[f"{direction} in something that the client does not use"] += 1
        elif command == "cat large" and not self.is_azure:
            self.counts["received in a range, unnoticed"] += 1
        is_checked = self.is_azure or command != "cat large"  # ranges of a bucket have no hash
        if done.returncode == 0 and not is_right and (noticed or is_checked):
            self.fail("wrong bytes", command)


network = Network()
network.work_through_flips() if network.flips else network.work_through_faults()
