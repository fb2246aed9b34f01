"""Shared pieces: a catalogue served by terrane-offline on 127.0.0.1, a Python HTTP service over
urllib, a recording observer."""

import concurrent.futures
import os
import re
import shutil
import subprocess
import threading
import urllib.request

import pytest

import terrane_common as t

PACK = bytes(range(256)) * 64
TOOL = os.environ.get("TERRANE_OFFLINE", "terrane-offline")


@pytest.fixture(scope="session")
def catalogue(tmp_path_factory):
    """The base URLs of two `terrane-offline serve` of region "harbour" (revision 2, PACK as its
    maps pack) for user "alice": one at full speed, one at 1 KiB/s."""
    if not shutil.which(TOOL):
        pytest.skip("terrane-offline is not built")
    source, site = tmp_path_factory.mktemp("packs"), tmp_path_factory.mktemp("site")
    (source / "h-maps.bin").write_bytes(PACK)
    (source / "regions.json").write_text(
        '{"regions": {"harbour": {"revision": 2, "packs": {"maps": "h-maps.bin"}}}}')
    subprocess.run([TOOL, "publish", str(source), str(site), "--user", "alice"], check=True,
                   capture_output=True)
    servers = [subprocess.Popen([TOOL, "serve", str(site), "--port", "0", "--rate", rate],
                                stdout=subprocess.PIPE, text=True) for rate in ("0", "1024")]
    yield [re.search(r"http://127\.0\.0\.1:\d+", server.stdout.readline()).group(0)
           for server in servers]
    for server in servers:
        server.terminate()
        server.wait()


class UrllibService:
    """An HttpServiceInterface in Python with only the methods it needs (the bridge skips the
    others): every exchange on a thread of its pool, which shutdown() joins."""

    def __init__(self):
        self.pool = concurrent.futures.ThreadPoolExecutor()

    def _fetch(self, request):
        method = t.HttpMethod(request.method).name.upper()
        with urllib.request.urlopen(urllib.request.Request(
                request.url, method=method, headers=request.headers), timeout=10) as answer:
            return t.HttpResponseData(code=answer.status, data=answer.read(), headers={
                k.lower(): v for k, v in answer.headers.items()})

    def request(self, request, callback):
        self.pool.submit(lambda: callback(t.HttpResponse(
            request=request, result=t.Expected(value=self._fetch(request)))))
        return t.next_http_request_id()

    def download(self, options, callback):
        download_id = t.next_http_request_id()

        def run():
            data = self._fetch(options.request)
            with open(options.local_path, "wb") as file:
                size = file.write(data.data)
            callback(t.DownloadStatus(download_id=download_id, state=t.DownloadState.Finished,
                                      total_bytes=size, received_bytes=size,
                                      download_options=options,
                                      http_result=t.Expected(value=data)))
        self.pool.submit(run)
        return download_id


class Recorder:
    """An observer that records (callback, its last argument or True): for on_deleting, the
    acknowledgement, which the test calls."""

    def __init__(self):
        self.events, self.changed = [], threading.Condition()

    def __getattr__(self, name):
        if not name.startswith("on_"):
            raise AttributeError(name)

        def record(*arguments):
            with self.changed:
                self.events.append((name, arguments[-1] if arguments else True))
                self.changed.notify_all()
        return record

    def wait(self, name, timeout=20):
        with self.changed:
            assert self.changed.wait_for(lambda: self.find(name), timeout), (name, self.events)
            return self.find(name)

    def find(self, name):
        return next((argument for event, argument in self.events if event == name), None)
