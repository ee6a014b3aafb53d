"""The tools that are compared, each with the settings that make it fastest here.

A tool overrides the methods of Tool for the work that it can do. Keys and prefixes are names in the bucket; local
arguments are paths. Each tool transfers JOBS small files at a time.
"""

import contextlib
import hashlib
import hmac
import importlib.util
import json
import re
import shutil
import time
import urllib.parse
from pathlib import Path

from measure import Failed, drop_page_cache

JOBS = 16
MIB = 1024 * 1024
GIT = {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1"}  # without the settings of the user


class Tool:
    name = ""
    program = ""  # the program that must be installed

    def __init__(self, endpoint, bucket, programs):
        self.endpoint = endpoint  # HOST:PORT
        self.bucket = bucket
        self.programs = programs  # the folder of the programs that are built here

    def missing(self):
        return None if shutil.which(self.program) else f"{self.program} is not installed"

    def _cannot(self, run, *_):
        raise NotImplementedError

    write = read = write_stream = read_stream = write_as_host = read_as_host = write_all = read_all = list_all = list_level = patch = append = pick = _cannot
    # For mounts only:
    unpack = remove_all = clone = transactions = append_lines = list_details = read_cached = _cannot


class Curl(Tool):
    """The floor: only the requests that the work needs. It does not hash what it sends."""

    name = "curl"
    program = "curl"

    def __init__(self, endpoint, bucket, programs, key_id, secret):
        super().__init__(endpoint, bucket, programs)
        self._key_id, self._secret = key_id, secret
        common = {"fail": "", "silent": "", "show-error": "", "no-progress-meter": "", "globoff": "", "max-time": "280",
                  "aws-sigv4": "aws:amz:us-east-1:s3", "user": f"{key_id}:{secret}",
                  "header": "x-amz-content-sha256: UNSIGNED-PAYLOAD"}
        self._options = [word for name, value in common.items() for word in ("--" + name, value) if word]
        self._config = "".join(f'{name} = "{value}"\n' if value else f"{name}\n" for name, value in common.items())
        self._parallel = ["--parallel", "--parallel-immediate", "--parallel-max", str(JOBS)]

    def url(self, key="", **query):
        # Sorted, because the signature needs a sorted query and curl signs it as given.
        parameters = sorted((name.replace("_", "-"), str(value)) for name, value in query.items())
        return f"http://{self.endpoint}/{self.bucket}/{key}" + ("?" if parameters else "") + "&".join(
            name + "=" + urllib.parse.quote(value, safe="") for name, value in parameters)

    def curl(self, run, *arguments, **files):
        run.call(["curl", *self._options, *arguments], **files)

    def many(self, run, pairs, *arguments):
        """Run one program for many transfers. Each is a list of options with values; its URL comes last."""
        config = run.folder / "transfers"
        config.write_text("".join(f'{option} = "{value}"\n' for pair in pairs for option, value in pair))
        self.curl(run, *arguments, *self._parallel, "--config", config)

    def write(self, run, local, key):
        self.curl(run, "--upload-file", local, self.url(key))

    def read(self, run, key, local):
        self.curl(run, "--output", local, self.url(key))

    def read_stream(self, run, key, local):
        self.curl(run, self.url(key), stdout=local)

    def write_all(self, run, folder, prefix):
        self.many(run, [[("upload-file", file), ("url", self.url(f"{prefix}/{file.relative_to(folder)}"))]
                        for file in Path(folder).rglob("*") if file.is_file()])

    def read_all(self, run, prefix, names, folder):
        Path(folder).mkdir()
        self.many(run, [[("output", f"{folder}/{name}"), ("url", self.url(f"{prefix}/{name}"))] for name in names])

    # The pages are requested in sequence, as a real client must: it learns the start of a page from the previous page.
    def list_all(self, run, prefix, out, names):
        starts = [""] + names[999:-1:1000]
        self.curl(run, *(self.url(list_type=2, prefix=prefix + "/", **({"start_after": f"{prefix}/{start}"} if start else {}))
                         for start in starts), stdout=out)
        keys = re.findall("<Key>(.*?)</Key>", Path(out).read_text())
        Path(out).write_text("\n".join(key.removeprefix(prefix + "/") for key in keys))

    list_level = list_all

    # The store copies everything before and after one part, which has the minimum size that a store accepts.
    def patch(self, run, key, offset, local):
        size, minimum = 256 * MIB, 5 * MIB
        first = offset - minimum // 2
        piece, response = run.folder / "piece", run.folder / "response"
        self.curl(run, *self._parallel, "--request", "POST", "--output", response, self.url(key, uploads=""), "--next",
                  *self._options, "--range", f"{first}-{first + minimum - 1}", "--output", piece, self.url(key))
        with run.timing(), open(piece, "r+b") as target:
            target.seek(offset - first)
            target.write(Path(local).read_bytes())
        self._replace(run, key, response, [(0, first - 1), piece, (first + minimum, size - 1)])

    def append(self, run, key, local):
        response = run.folder / "response"
        self.curl(run, "--request", "POST", "--output", response, self.url(key, uploads=""))
        self._replace(run, key, response, [(0, 256 * MIB - 1), local])

    def _replace(self, run, key, response, parts):
        upload = re.search("<UploadId>(.*?)</UploadId>", response.read_text())[1]
        arguments = []
        for number, part in enumerate(parts, 1):
            query = {"partNumber": number, "uploadId": upload}
            arguments += ["--next"] if arguments else []
            if isinstance(part, tuple):
                arguments += ["--fail", "--silent", "--show-error", "--request", "PUT"]
                arguments += ["--output", f"{response}{number}"]
                for header in self._copy_headers(key, part, query):
                    arguments += ["--header", header]
            else:
                arguments += [*self._options, "--upload-file", part, "--dump-header", f"{response}{number}"]
            arguments.append(self.url(key, **query))
        self.curl(run, *self._parallel, *arguments)
        tags = [re.search("([0-9a-f]{32})", Path(f"{response}{number + 1}").read_text().split("ETag", 1)[-1])[1]
                for number in range(len(parts))]
        body = "".join(f"<Part><PartNumber>{number}</PartNumber><ETag>{tag}</ETag></Part>" for number, tag in enumerate(tags, 1))
        self.curl(run, "--request", "POST", "--data", f"<CompleteMultipartUpload>{body}</CompleteMultipartUpload>",
                  self.url(key, uploadId=upload))

    # Debian's curl sorts the two copy headers wrongly, so its signature would be wrong. They are signed here.
    def _copy_headers(self, key, span, query):
        now = time.strftime("%Y%m%dT%H%M%SZ", time.gmtime())
        headers = {"host": self.endpoint, "x-amz-content-sha256": "UNSIGNED-PAYLOAD", "x-amz-copy-source": f"/{self.bucket}/{key}",
                   "x-amz-copy-source-range": f"bytes={span[0]}-{span[1]}", "x-amz-date": now}
        lines = [f"{name}:{value}" for name, value in headers.items()]
        scope = [now[:8], "us-east-1", "s3", "aws4_request"]
        request = "\n".join(["PUT", f"/{self.bucket}/{key}", self.url(**query).partition("?")[2], *lines, "", ";".join(headers),
                             "UNSIGNED-PAYLOAD"])
        digest = ("AWS4" + self._secret).encode()
        for word in [*scope, "\n".join(["AWS4-HMAC-SHA256", now, "/".join(scope), hashlib.sha256(request.encode()).hexdigest()])]:
            digest = hmac.digest(digest, word.encode(), "sha256")
        credential = "/".join([self._key_id, *scope])
        return [*lines, "content-length: 0", f"authorization: AWS4-HMAC-SHA256 Credential={credential}, "
                f"SignedHeaders={';'.join(headers)}, Signature={digest.hex()}"]

    def pick(self, run, key, size, offsets, out):
        config = run.folder / "ranges"
        config.write_text("next\n".join(
            f'{self._config}range = "{offset}-{int(offset) + size - 1}"\nurl = "{self.url(key)}"\n'
            for offset in Path(offsets).read_text().split()))
        run.call(["curl", "--config", config], stdout=out)

    # The methods below are for the comparison itself.

    def keys(self, run, prefix):
        """The keys of all objects that start with the prefix."""
        page, keys = run.folder / "page", []
        while True:
            start = {"start_after": keys[-1]} if keys else {}
            self.curl(run, self.url(list_type=2, prefix=prefix, **start), stdout=page)
            found = re.findall("<Key>(.*?)</Key>", page.read_text())
            if not found:
                return keys
            keys += found

    def clear(self, run, prefix):
        """Remove all objects whose keys start with the prefix."""
        keys = self.keys(run, prefix)
        if keys:
            self.many(run, [[("url", self.url(key))] for key in keys], "--request", "DELETE")


class Ours(Tool):
    name = "cloudfs"

    def __init__(self, endpoint, bucket, programs, parameters):
        super().__init__(endpoint, bucket, programs)
        self._parameters = parameters

    def missing(self):
        return None

    def _url(self):
        return f"s3://{self.bucket}?endpoint=http://{self.endpoint}&path-style=1&{self._parameters}"

    def _cloudfs(self, run, *arguments, **files):
        run.call([*self.command(), *arguments], **files)

    def command(self):
        return [self.programs / "tools/cloudfs/cloudfs", "--store", self._url()]

    def write(self, run, local, key):
        self._cloudfs(run, "put", "-f", local, key)

    def read(self, run, key, local):
        self._cloudfs(run, "get", key, local)

    def write_stream(self, run, local, key):
        self._cloudfs(run, "put", "-f", "-", key, stdin=local)

    def read_stream(self, run, key, local):
        self._cloudfs(run, "cat", key, stdout=local)

    def write_as_host(self, run, local, key):
        run.call([self.programs / "bench/compare/host_stream", "write", local, self._url(), key])

    def read_as_host(self, run, key, local):
        run.call([self.programs / "bench/compare/host_stream", "read", local, self._url(), key])

    def write_all(self, run, folder, prefix):
        self._cloudfs(run, "put", "-r", "-f", "-j", JOBS, folder, prefix)

    def read_all(self, run, prefix, names, folder):
        self._cloudfs(run, "get", "-r", "-j", JOBS, prefix, folder)

    def list_all(self, run, prefix, out, names):
        self._cloudfs(run, "ls", "-R", "--files", prefix, stdout=out)

    def list_level(self, run, prefix, out, names):
        self._cloudfs(run, "ls", "--files", prefix, stdout=out)

    def patch(self, run, key, offset, local):
        self._cloudfs(run, "write", key, "--offset", offset, stdin=local)

    def append(self, run, key, local):
        self._cloudfs(run, "append", key, stdin=local)

    def pick(self, run, key, size, offsets, out):
        cache = f"&cache={run.folder}/cache&cache-size={1 << 30}"
        run.call([self.programs / "bench/compare/random_reads", size, offsets, out, self._url() + cache, "/" + key])


class Rclone(Tool):
    name = program = "rclone"

    def _rclone(self, run, *arguments, **files):
        run.call(["rclone", *arguments], **files, **self._settings())

    def _settings(self):
        return {"RCLONE_CONFIG": "", "RCLONE_CONFIG_GW_TYPE": "s3", "RCLONE_CONFIG_GW_PROVIDER": "Ceph",
                "RCLONE_CONFIG_GW_ENV_AUTH": "true", "RCLONE_CONFIG_GW_ENDPOINT": f"http://{self.endpoint}",
                # No requests that the other tools do not send either.
                "RCLONE_S3_NO_CHECK_BUCKET": "true", "RCLONE_S3_NO_HEAD": "true", "RCLONE_USE_SERVER_MODTIME": "true",
                # A single put is a little faster than a multipart upload, and uses half the memory.
                "RCLONE_S3_UPLOAD_CUTOFF": "2Gi", "RCLONE_S3_CHUNK_SIZE": "16Mi", "RCLONE_S3_DISABLE_CHECKSUM": "true", "RCLONE_TRANSFERS": str(JOBS), "RCLONE_CHECKERS": str(JOBS)}

    def _path(self, key):
        return f"gw:{self.bucket}/{key}"

    def write(self, run, local, key):
        self._rclone(run, "copyto", "--no-check-dest", local, self._path(key))

    def read(self, run, key, local):
        self._rclone(run, "cat", "--buffer-size", "0", self._path(key), stdout=local)  # faster than copyto, even with 4 streams

    def write_stream(self, run, local, key):
        self._rclone(run, "rcat", self._path(key), stdin=local)

    read_stream = read

    def write_all(self, run, folder, prefix):
        self._rclone(run, "copy", "--no-check-dest", folder, self._path(prefix))

    def read_all(self, run, prefix, names, folder):
        self._rclone(run, "copy", "--no-check-dest", self._path(prefix), folder)

    def list_all(self, run, prefix, out, names):
        self._rclone(run, "lsf", "-R", "--fast-list", "--files-only", self._path(prefix), stdout=out)

    def list_level(self, run, prefix, out, names):
        self._rclone(run, "lsf", "--files-only", self._path(prefix), stdout=out)

    def pick(self, run, key, size, offsets, out):
        offsets = Path(offsets).read_text().split()
        if len(offsets) > 1:
            self._cannot(run)  # except by one start for each read
        self._rclone(run, "cat", "--offset", offsets[0], "--count", size, self._path(key), stdout=out)


class Mount(Tool):
    """A mounted file system, used by the standard programs of the system.

    A tool defines mounted(run, mode). The modes are: "stream" files from beginning to end, "edit" files, also "replace"
    them by renaming others, "pick" small pieces, and read files that are "cached".
    """

    def changing(self, run, mode="edit"):
        """Mounted until the store has the changes. Here closing the files is enough."""
        return self.mounted(run, mode)

    def write(self, run, local, key):
        with self.mounted(run, "stream") as mount_point:
            run.call(["dd", f"if={local}", f"of={mount_point}/{key}", "bs=1M"])

    def read(self, run, key, local):
        with self.mounted(run, "stream") as mount_point:
            run.call(["dd", f"if={mount_point}/{key}", f"of={local}", "bs=1M"])

    def write_all(self, run, folder, prefix):
        with self.mounted(run, "stream") as mount_point:
            run.call(["mkdir", mount_point / prefix])
            run.call(["sh", "-c", f"find {folder} -type f | xargs -P {JOBS} -n 16 cp -t {mount_point}/{prefix}"])

    def read_all(self, run, prefix, names, folder):
        Path(folder).mkdir()
        with self.mounted(run, "stream") as mount_point:
            run.call(["sh", "-c", f"find {mount_point}/{prefix} -type f | xargs -P {JOBS} -n 16 cp -t {folder}"])

    def list_all(self, run, prefix, out, names):
        with self.mounted(run, "stream") as mount_point:
            run.call(["find", mount_point / prefix, "-type", "f", "-printf", "%P\n"], stdout=out)

    list_level = list_all

    def patch(self, run, key, offset, local):
        with self.changing(run) as mount_point:
            run.call(["dd", f"if={local}", f"of={mount_point}/{key}", "bs=1K", "conv=notrunc", f"seek={offset // 1024}"])

    def append(self, run, key, local):
        with self.changing(run) as mount_point:
            run.call(["dd", f"if={local}", f"of={mount_point}/{key}", "bs=1K", "conv=notrunc", "oflag=append"])

    def pick(self, run, key, size, offsets, out):
        with self.mounted(run, "pick") as mount_point:
            run.call([self.programs / "bench/compare/random_reads", size, offsets, out, mount_point / key])

    def unpack(self, run, archive, prefix):
        with self.changing(run) as mount_point:
            run.call(["mkdir", mount_point / prefix])
            run.call(["tar", "--extract", "--no-same-owner", "--file", archive, "--directory", mount_point / prefix])

    def remove_all(self, run, prefix):
        with self.changing(run) as mount_point:
            run.call(["rm", "-r", mount_point / prefix])

    def clone(self, run, repository, prefix):
        with self.changing(run, "replace") as mount_point:
            run.call(["git", "clone", "--quiet", "--no-hardlinks", "--template=", repository, mount_point / prefix],
                     **GIT)

    def transactions(self, run, key, count):
        self._write_durably(run, "replace", "transactions", key, count)

    def append_lines(self, run, key, count):
        self._write_durably(run, "edit", "lines", key, count)

    def _write_durably(self, run, mode, verb, key, count):
        with self.changing(run, mode) as mount_point:
            program = Path(__file__).with_name("durable_writes.py")
            run.call(["/usr/bin/python3", program, verb, mount_point / key, count])

    def list_details(self, run, prefix, out, times):
        with self.mounted(run, "stream") as mount_point:
            for _ in range(times):  # the last is counted
                run.restart()
                run.call(["ls", "-lR", mount_point / prefix], stdout=out)

    def read_cached(self, run, key, local, times):
        with self.mounted(run, "cached") as mount_point:
            for _ in range(times):  # the last is counted
                drop_page_cache()
                run.restart()
                run.call(["dd", f"if={mount_point}/{key}", f"of={local}", "bs=1M"])


class OursMounted(Mount):
    name = "cloudfs mount"

    def __init__(self, endpoint, bucket, programs, parameters):
        super().__init__(endpoint, bucket, programs)
        self._store = Ours(endpoint, bucket, programs, parameters)

    def missing(self):
        return None

    def mounted(self, run, mode):
        # It stores a file when it is closed, but a new file without content only after that.
        return run.mounted([*self._store.command(), "mount", "--cache-dir", run.folder / "cache"],
                           counts_end=mode in ("edit", "replace"))


class RcloneMount(Mount):
    name = "rclone mount"
    program = "rclone"

    def __init__(self, endpoint, bucket, programs):
        super().__init__(endpoint, bucket, programs)
        self._settings = Rclone(endpoint, bucket, programs)._settings()
        self._modes = {
            "stream": ["--vfs-cache-mode", "off", "--vfs-read-wait", "200ms"],  # else reads out of order start new requests
            "edit": ["--vfs-cache-mode", "writes", "--vfs-write-back", "0"],
            # With 0, what is renamed during its upload is lost.
            "replace": ["--vfs-cache-mode", "writes", "--vfs-write-back", "1s"],
            "pick": ["--vfs-cache-mode", "full", "--vfs-read-chunk-size", "1Mi", "--buffer-size", "0"],
            "cached": ["--vfs-cache-mode", "full"]}

    def mounted(self, run, mode):
        return run.mounted(["rclone", "mount", "--no-modtime", "--no-checksum", "--poll-interval", "0", "--cache-dir",
                            run.folder / "cache", *self._modes[mode], f"gw:{self.bucket}"], **self._settings)

    # It uploads a change only after the file is closed, and does not wait for uploads when it ends. Beside each file in
    # its cache is another that tells whether the store has it.
    @contextlib.contextmanager
    def changing(self, run, mode="edit"):
        with self.mounted(run, mode) as mount_point:
            yield mount_point
            with run.timing():
                deadline = time.monotonic() + run.limit
                for known in [path for path in (run.folder / "cache/vfsMeta").rglob("*") if path.is_file()]:
                    while not self._is_stored(known):
                        if time.monotonic() > deadline:
                            raise Failed(f"did not upload {known.name} within {run.limit} s")
                        time.sleep(0.02)

    @staticmethod
    def _is_stored(known):
        try:
            return json.loads(known.read_text())["Dirty"] is False
        except FileNotFoundError:  # removed
            return True
        except ValueError:  # being written
            return False


class S3fs(Mount):
    name = program = "s3fs"

    def mounted(self, run, mode):
        options = ["use_path_request_style", f"url=http://{self.endpoint}", "endpoint=us-east-1", f"tmpdir={run.folder}",
                   "listobjectsv2", "enable_noobj_cache"]  # larger parts or more parts at a time were not faster
        if mode == "cached":
            options.append(f"use_cache={run.folder}/cache")
        return run.mounted(["s3fs", self.bucket, "-f", "-o", ",".join(options)])


class Gdal(Tool):
    name = "GDAL"

    def missing(self):
        return None if (self.programs / "bench/compare/gdal_driver").exists() else "libgdal-dev was not installed at build time"

    def _gdal(self, run, *arguments, stdout=None, **settings):
        run.call([self.programs / "bench/compare/gdal_driver", *arguments], stdout=stdout, AWS_S3_ENDPOINT=self.endpoint, AWS_HTTPS="NO",
                 AWS_VIRTUAL_HOSTING="FALSE", GDAL_DISABLE_READDIR_ON_OPEN="EMPTY_DIR", **settings)

    def _path(self, key):
        return f"/vsis3/{self.bucket}/{key}"

    def write(self, run, local, key):
        self._gdal(run, "write", local, self._path(key))

    def read(self, run, key, local):
        self._gdal(run, "read", self._path(key), local)

    def write_all(self, run, folder, prefix):
        self._gdal(run, "write-all", folder, self._path(prefix), JOBS)

    def read_all(self, run, prefix, names, folder):
        self._gdal(run, "read-all", self._path(prefix), folder, JOBS)

    def list_all(self, run, prefix, out, names):
        self._gdal(run, "list-all", self._path(prefix), stdout=out)

    def list_level(self, run, prefix, out, names):
        self._gdal(run, "list", self._path(prefix), stdout=out)

    def pick(self, run, key, size, offsets, out):
        # Smaller pieces transfer less but take longer.
        self._gdal(run, "pick", size, offsets, out, self._path(key), CPL_VSIL_CURL_CHUNK_SIZE=str(128 * 1024),
                   CPL_VSIL_CURL_CACHE_SIZE=str(64 * MIB))


class Awscrt(Tool):
    """A client in C that transfers the parts of one object in parallel, called from Python. Its start-up is not counted."""

    name = "awscrt"

    def missing(self):
        return None if importlib.util.find_spec("awscrt") else "python3-awscrt is not installed"

    def _transfer(self, run, verb, key, local):
        run.call_self_timed(["/usr/bin/python3", Path(__file__).with_name("awscrt_client.py"), verb, self.endpoint, self.bucket,
                             key, local], HTTP_PROXY=f"http://{self.endpoint}")

    def write(self, run, local, key):
        self._transfer(run, "put", key, local)

    def read(self, run, key, local):
        self._transfer(run, "get", key, local)
