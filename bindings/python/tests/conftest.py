"""Shared pieces: a pack server on 127.0.0.1, a Python HTTP service over urllib, a recording
observer."""

import hashlib
import http.server
import subprocess
import sys
import threading
import urllib.error
import urllib.request

import pytest

import terrane_common as t

PACK = bytes(range(256)) * 64


class PackServer:
    """Serves {path: bytes} with a lease; a pack stalls `delay` seconds half-way."""

    def __init__(self, files, delay=0.0):

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                body = files.get(self.path.split("?")[0])
                if body is None:
                    return self.send_error(404)
                self.send_response(200)
                self.send_header("Content-Length", str(len(body)))
                self.send_header("Cache-Control", "max-age=3600")
                self.end_headers()
                if self.command == "GET":
                    half = len(body) // 2 if delay and self.path.startswith("/packs/") else 0
                    self.wfile.write(body[:half])
                    self.wfile.flush()
                    threading.Event().wait(delay if half else 0)
                    self.wfile.write(body[half:])

            do_HEAD = do_GET

            def log_message(self, *args):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.server.server_port}"
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def catalogue(url, region="harbour", pack=PACK):
    return ('{"%s": {"name": "Harbour", "revision": 3, "configuration": {"geography": null}, '
            '"packs": [{"domain": "maps", "format": 1, "url": "%s/packs/maps", '
            '"md5_checksum": "%s", "size": %d}]}}'
            % (region, url, hashlib.md5(pack).hexdigest(), len(pack))).encode()


def serve_catalogue(delay=0.0):
    files = {}
    server = PackServer(files, delay)
    files.update({"/offline-data/v1/alice/regions": catalogue(server.url), "/packs/maps": PACK})
    return server


@pytest.fixture
def pack_server():
    server = serve_catalogue()
    yield server
    server.close()


class UrllibService:
    """An HttpServiceInterface in Python: every exchange on a thread of its own."""

    def __init__(self):
        self.threads = []

    def set_max_requests_per_host(self, maximum):
        pass

    def supports_keep_compression(self):
        return False

    def _fetch(self, request):
        method = t.HttpMethod(request.method).name.upper()
        try:
            with urllib.request.urlopen(urllib.request.Request(
                    request.url, method=method, headers=request.headers), timeout=10) as answer:
                code, headers, body = answer.status, answer.headers, answer.read()
        except urllib.error.HTTPError as error:
            code, headers, body = error.code, error.headers, error.read()
        return t.HttpResponseData(code=code, data=body,
                                  headers={k.lower(): v for k, v in headers.items()})

    def _start(self, work):
        thread = threading.Thread(target=work, daemon=True)
        self.threads.append(thread)
        thread.start()

    def request(self, request, callback):
        def run():
            callback(t.HttpResponse(request=request, result=t.Expected(value=self._fetch(request))))
        self._start(run)
        return t.next_http_request_id()

    def cancel_request(self, request_id, callback):
        self._start(lambda: callback(False))

    def download(self, options, callback):
        download_id = t.next_http_request_id()

        def run():
            callback(t.DownloadStatus(download_id=download_id, download_options=options))
            data = self._fetch(options.request)
            with open(options.local_path, "wb") as file:
                file.write(data.data)
            size = len(data.data)
            data.data = b""
            callback(t.DownloadStatus(download_id=download_id, state=t.DownloadState.Finished,
                                      total_bytes=size, received_bytes=size,
                                      download_options=options,
                                      http_result=t.Expected(value=data)))
        self._start(run)
        return download_id

    def join(self):
        for thread in self.threads:
            thread.join()


class Recorder:
    """An observer that records (callback, domain, status) and keeps acknowledgements."""

    def __init__(self, acknowledge=True):
        self.events, self.messages, self.acks = [], [], []
        self.acknowledge = acknowledge
        self.changed = threading.Condition()

    def _add(self, name, pack=None):
        with self.changed:
            self.events.append((name, pack))
            self.changed.notify_all()

    def __getattr__(self, name):
        if not name.startswith("on_"):
            raise AttributeError(name)
        return lambda domain=None, region=None, pack=None: self._add(name, pack)

    def on_deleting(self, domain, region, pack, acknowledge):
        self.acks.append(acknowledge)
        if self.acknowledge:
            acknowledge()
        self._add("on_deleting", pack)

    def on_log_message(self, message):
        with self.changed:
            self.messages.append(message)
            self.changed.notify_all()

    def wait(self, name, timeout=20):
        with self.changed:
            assert self.changed.wait_for(lambda: self.find(name), timeout), (name, self.events)
            return self.find(name)

    def find(self, name):
        return next((pack for event, pack in self.events if event == name), None) or \
            next((True for event, _ in self.events if event == name), None)


def run_python(code, timeout=60):
    """Runs `code` in a fresh interpreter with this module on its path."""
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                          timeout=timeout)
