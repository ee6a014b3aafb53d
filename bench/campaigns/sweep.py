#!/usr/bin/env python3
"""Let each call of a store fail, one after the other, before or after it took effect, and check what is stored.

Runs the tests that do this, over the memory store, the local store, the client for distant stores, and a bucket, and
counts their runs.
"""

import json
import pathlib
import subprocess
import sys
import tempfile

if len(sys.argv) != 2:
    sys.exit("usage: sweep.py BUILD_FOLDER")
build = pathlib.Path(sys.argv[1])
programs = {
    build / "storage/cloudprovider/test/cloudprovider_model_test": "*FileModelTest.Survives*:*RandomFileTest*",
    build / "storage/clients/remote/remote_test": "RemoteClientTest.EndsWith*",
}
counts = dict.fromkeys(["memory", "local", "the client for distant stores", "a store's requests"], 0)


def store_of(suite, case):
    if "RemoteClientTest" in suite:
        return "a store's requests"
    return "local" if "Local" in case else "the client for distant stores" if "Remote" in case else "memory"


failed = 0
for program, cases in programs.items():
    with tempfile.NamedTemporaryFile(suffix=".json") as report:
        command = [program, f"--gtest_filter={cases}", f"--gtest_output=json:{report.name}", "--gtest_brief=1"]
        if subprocess.run(command, stdout=sys.stderr).returncode != 0:
            failed += 1
        for suite in json.load(report)["testsuites"]:
            for case in suite["testsuite"]:
                counts[store_of(suite["name"], case["name"])] += int(case.get("faultedRuns", 0))
shown = ", ".join(f"{count} over {store}" for store, count in counts.items())
print(f"| the n-th call fails | {sum(counts.values())} | {shown}, {failed} programs failed |")
sys.exit(1 if failed or not all(counts.values()) else 0)
