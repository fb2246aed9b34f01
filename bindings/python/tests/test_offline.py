import asyncio
import gc
import hashlib
import os
import re
import shutil
import subprocess
import textwrap

import pytest

import terrane_common as t
from terrane_common import aio
from conftest import PACK, Recorder, UrllibService, run_python

D = t.OfflineDataDomain


@pytest.fixture
def python_http():
    service = UrllibService()
    t.HttpServiceFactory.set_user_defined(service)
    yield service
    t.HttpServiceFactory.set_user_defined(None)
    service.join()


def regions_of(service):
    got = []
    service.list_available_regions(got.append)
    for _ in range(200):
        if got:
            return got[0]
        asyncio.run(asyncio.sleep(0.05))
    raise AssertionError("no catalogue")


def test_python_http_service_end_to_end(tmp_path, pack_server, python_http):
    assert t.HttpServiceFactory.get_instance() is python_http
    recorder = Recorder(acknowledge=False)
    raising = Recorder()
    raising.on_pending = lambda *args: (_ for _ in ()).throw(ValueError("boom"))
    t.OfflineService.register_observer(recorder)
    t.OfflineService.register_observer(raising)
    options = t.OfflineServiceOptions(username="alice", access_token="secret",
                                      base_url=pack_server.url)
    service = t.OfflineService.get_instance(str(tmp_path), options)
    try:
        [region] = regions_of(service).value
        assert (region.id, region.map_pack.bytes) == ("harbour", len(PACK))
        service.download_pack(D.Maps, region)
        pack = recorder.wait("on_available")
        with open(pack.path, "rb") as file:
            assert hashlib.md5(file.read()).digest() == hashlib.md5(PACK).digest()
        assert "Uncaught exception in observer: ValueError: boom" in raising.messages
        service.delete_pack(D.Maps, region)
        recorder.wait("on_deleting")
        assert os.path.exists(pack.path) and recorder.find("on_deleted") is None
        recorder.acks[0]()
        recorder.wait("on_deleted")
        assert not os.path.exists(pack.path)
    finally:
        t.OfflineService.unregister_observer(recorder)
        t.OfflineService.unregister_observer(raising)
        del service


def test_dropped_bridges_go_to_nothing(tmp_path, pack_server, python_http):
    recorder = Recorder()
    t.OfflineService.register_observer(recorder)
    del recorder
    gc.collect()
    http = UrllibService()
    t.HttpServiceFactory.set_user_defined(http)
    del http
    gc.collect()
    assert t.HttpServiceFactory.get_instance() is None
    t.HttpServiceFactory.set_user_defined(python_http)
    options = t.OfflineServiceOptions(username="alice", base_url=pack_server.url)
    service = t.OfflineService.get_instance(str(tmp_path), options)
    assert regions_of(service).is_value
    del service


@pytest.mark.parametrize("script", [
    # The last reference goes while an observer callback waits for the interpreter lock.
    """
    import threading, time, terrane_common as t
    entered = threading.Event()
    class Slow:
        def on_initialized(self):
            entered.set()
            time.sleep(0.3)
    slow = Slow()
    t.OfflineService.register_observer(slow)
    service = t.OfflineService.get_instance(STORAGE, t.OfflineServiceOptions(username="a"))
    entered.wait(10)
    del service
    print("released")
    """,
    # The interpreter ends while the default service's download stalls half-way.
    """
    import threading, terrane_common as t
    from conftest import serve_catalogue, Recorder
    server = serve_catalogue(delay=30)
    recorder = Recorder()
    t.OfflineService.register_observer(recorder)
    service = t.OfflineService.get_instance(STORAGE, t.OfflineServiceOptions(
        username="alice", base_url=server.url))
    got = []
    service.list_available_regions(got.append)
    while not got:
        threading.Event().wait(0.05)
    service.download_pack(t.OfflineDataDomain.Maps, got[0].value[0])
    recorder.wait("on_downloading")
    print("released")
    """,
])
def test_release_and_shutdown_do_not_hang(tmp_path, script):
    code = "import sys; sys.path.insert(0, %r); STORAGE = %r\n" % (
        os.path.dirname(__file__), str(tmp_path)) + textwrap.dedent(script)
    finished = run_python(code, timeout=60)
    assert (finished.returncode, finished.stdout) == (0, "released\n"), finished.stderr


@pytest.mark.skipif(not shutil.which(os.environ.get("TERRANE_OFFLINE", "terrane-offline")),
                    reason="terrane-offline is not built")
def test_asyncio_download_from_terrane_offline_serve(tmp_path):
    tool = os.environ.get("TERRANE_OFFLINE", "terrane-offline")
    source, site = tmp_path / "packs", tmp_path / "site"
    source.mkdir()
    (source / "h-maps.bin").write_bytes(PACK)
    (source / "regions.json").write_text(
        '{"regions": {"harbour": {"revision": 2, "packs": {"maps": "h-maps.bin"}}}}')
    subprocess.run([tool, "publish", str(source), str(site), "--user", "alice"], check=True,
                   capture_output=True)
    server = subprocess.Popen([tool, "serve", str(site), "--port", "0"], stdout=subprocess.PIPE,
                              text=True)
    try:
        url = re.search(r"http://127\.0\.0\.1:\d+", server.stdout.readline()).group(0)
        service = t.OfflineService.get_instance(str(tmp_path / "storage"), t.OfflineServiceOptions(
            username="alice", access_token="secret", base_url=url))

        async def main():
            [region] = await aio.list_available_regions(service)
            job = aio.download(service, region, [D.Maps], retry=False)
            seen = [progress.state async for progress in job]
            packs = await job
            return seen, packs

        seen, packs = asyncio.run(main())
        assert seen[-1] == t.OfflineDataPackStatus.Available
        assert packs[D.Maps].bytes == len(PACK)
        del service
    finally:
        server.terminate()
        server.wait()
