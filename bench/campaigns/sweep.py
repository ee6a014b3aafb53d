#!/usr/bin/env python3
"""Let each call of a store fail, one after the other, before or after it took effect, and check what is stored.

Runs the tests that do this, over the memory store, the local store, a client that works ahead, and a bucket, and counts
their runs.
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
    build / "storage/clients/s3/s3_test": "*FaultTest.*",
}
counts = dict.fromkeys(["memory", "local", "a client that works ahead", "S3"], 0)


def store_of(suite, case):
    if "FaultTest" in suite:
        return "S3"
    return "local" if "Local" in case else "a client that works ahead" if "WorkingAhead" in case else "memory"


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
