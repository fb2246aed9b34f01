import asyncio
import os
import subprocess
import sys
import textwrap

import pytest

import terrane_common as t
from terrane_common import aio
from conftest import PACK, Recorder, UrllibService

D = t.OfflineDataDomain


@pytest.fixture
def python_http():
    service = UrllibService()
    t.HttpServiceFactory.set_user_defined(service)
    yield service
    t.HttpServiceFactory.set_user_defined(None)
    service.pool.shutdown()


def test_python_http_service_and_observers(tmp_path, catalogue, python_http):
    recorder, raising = Recorder(), Recorder()
    raising.on_pending = lambda *args: (_ for _ in ()).throw(ValueError("boom"))
    t.OfflineService.register_observer(recorder)
    t.OfflineService.register_observer(raising)
    options = t.OfflineServiceOptions(username="alice", access_token="secret",
                                      base_url=catalogue[0])
    service = t.OfflineService.get_instance(str(tmp_path), options)

    async def main():
        [region] = await aio.list_available_regions(service)
        job = aio.download(service, region, [D.Maps], retry=False)
        return region, [progress.state async for progress in job][-1], await job

    region, last, packs = asyncio.run(main())
    assert (region.id, last, packs[D.Maps].bytes) == (
        "harbour", t.OfflineDataPackStatus.Available, len(PACK))
    pack = recorder.wait("on_available")
    assert ("on_log_message", "Uncaught exception in observer: ValueError: boom") in \
        raising.events
    # The files stay until every observer has acknowledged.
    service.delete_pack(D.Maps, region)
    recorder.wait("on_deleting")
    raising.wait("on_deleting")()
    assert os.path.exists(pack.path) and recorder.find("on_deleted") is None
    recorder.find("on_deleting")()
    recorder.wait("on_deleted")
    assert not os.path.exists(pack.path)
    t.OfflineService.unregister_observer(recorder)
    t.OfflineService.unregister_observer(raising)


@pytest.mark.parametrize("script", [
    # The last reference goes while an observer callback waits for the interpreter lock.
    """
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
    """,
    # The interpreter ends while the default service's download crawls.
    """
    recorder = Recorder()
    t.OfflineService.register_observer(recorder)
    service = t.OfflineService.get_instance(STORAGE, t.OfflineServiceOptions(
        username="alice", base_url=SLOW_URL))
    [region] = asyncio.run(aio.list_available_regions(service))
    service.download_pack(t.OfflineDataDomain.Maps, region)
    recorder.wait("on_downloading")
    """,
    # The last reference to a client goes on its own thread, with the callback that held it.
    """
    finished = threading.Event()
    class Job:
        def __init__(self):
            self.client = t.OfflineClient(STORAGE, t.OfflineServiceOptions(
                username="alice", base_url=FAST_URL))
            [region] = self.client.list_regions(10).value
            self.client.download(region, None, progress=self.progress)
        def progress(self, state):
            if state.state == t.OfflineDataPackStatus.Available:
                finished.set()
    Job()
    finished.wait(10)
    time.sleep(0.5)
    """,
])
def test_release_and_shutdown_do_not_hang(tmp_path, catalogue, script):
    code = "import asyncio, sys, threading, time, terrane_common as t; sys.path.insert(0, %r)\n" \
        "from conftest import Recorder; from terrane_common import aio\n" \
        "STORAGE, FAST_URL, SLOW_URL = %r, %r, %r\n" % (os.path.dirname(__file__), str(tmp_path),
                                                        *catalogue)
    finished = subprocess.run([sys.executable, "-c", code + textwrap.dedent(script) +
                               "print('released')\n"], capture_output=True, text=True, timeout=60)
    assert (finished.returncode, finished.stdout) == (0, "released\n"), finished.stderr

