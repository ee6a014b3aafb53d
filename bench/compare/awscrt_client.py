#!/usr/bin/python3
"""Write or read one object with the S3 client of awscrt, and print what the transfer alone took, as JSON.

Usage: awscrt_client.py put|get HOST:PORT BUCKET KEY FILE

The credentials come from AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY. The client connects to port 80 of the host that a
request names, so HTTP_PROXY names the server's real address.
"""

import json
import os
import resource
import sys
import time

from awscrt.auth import AwsCredentialsProvider
from awscrt.http import HttpHeaders, HttpRequest
from awscrt.s3 import S3Client, S3RequestTlsMode, S3RequestType

LIMIT = 280  # seconds


def cpu():
    """Seconds, user and system, of all threads of this process."""
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def main():
    verb, host, bucket, key, path = sys.argv[1:]
    credentials = AwsCredentialsProvider.new_static(os.environ["AWS_ACCESS_KEY_ID"], os.environ["AWS_SECRET_ACCESS_KEY"])
    client = S3Client(bootstrap=None, region="us-east-1", tls_mode=S3RequestTlsMode.DISABLED, credential_provider=credentials)
    headers = HttpHeaders([("Host", host)])
    if verb == "put":
        headers.add("Content-Length", str(os.path.getsize(path)))
        request = {"request": HttpRequest("PUT", f"/{bucket}/{key}", headers), "type": S3RequestType.PUT_OBJECT, "send_filepath": path}
    else:
        request = {"request": HttpRequest("GET", f"/{bucket}/{key}", headers), "type": S3RequestType.GET_OBJECT, "recv_filepath": path}

    started, used = time.monotonic(), cpu()
    transfer = client.make_request(**request)  # kept until the end: without it the client stops writing the file, silently
    transfer.finished_future.result(LIMIT)
    print(json.dumps({"wall": time.monotonic() - started, "cpu": cpu() - used}))


if __name__ == "__main__":
    main()
