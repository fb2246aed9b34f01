"""asyncio over the offline service.

    regions = await aio.list_available_regions(service)
    async for progress in (job := aio.download(service, regions[0])):
        print(progress.domain, progress.bytes_done, progress.bytes_total)
    packs = await job                      # {OfflineDataDomain: OfflineDataPack}

Library threads hand their results to the event loop with call_soon_threadsafe; cancelling the
awaiting task cancels the downloads (their partial files stay, so a later download resumes).
"""

from __future__ import annotations

import asyncio
from typing import AsyncIterator, Dict, Generator, Iterable, List, Optional

from ._core import (
    Error,
    NetworkPolicy,
    OfflineClient,
    OfflineDataDomain,
    OfflineDataError,
    OfflineDataPack,
    OfflineDataRegionMetadata,
    OfflineService,
    OfflineServiceOptions,
    PackProgress,
    ReachabilityFactory,
    RetryPolicy,
)

__all__ = ["OfflineError", "Download", "list_available_regions", "download"]


class OfflineError(Error):
    """An offline operation failed; `error` is the OfflineDataError, `domain` the pack's."""

    def __init__(self, error: OfflineDataError, domain: Optional[OfflineDataDomain] = None):
        super().__init__(error.message)
        self.error = error
        self.domain = domain


async def list_available_regions(service: OfflineService) -> List[OfflineDataRegionMetadata]:
    """Reads the catalogue afresh; raises OfflineError when it cannot be read."""
    loop = asyncio.get_running_loop()
    future: asyncio.Future = loop.create_future()

    def deliver(result) -> None:  # type: ignore[no-untyped-def]
        if not future.done():
            future.set_result(result)

    service.list_available_regions(lambda result: loop.call_soon_threadsafe(deliver, result))
    result = await future
    if result.is_error:
        raise OfflineError(result.error)
    return list(result.value)


class Download:
    """A download under way: await it for the packs, or iterate over its progress first."""

    def __init__(self, service: OfflineService, region: OfflineDataRegionMetadata,
                 domains: Optional[Iterable[OfflineDataDomain]], retry: bool,
                 allow_wan: bool) -> None:
        self._service = service
        self._loop = asyncio.get_running_loop()
        self._progress: asyncio.Queue = asyncio.Queue()
        self._reachability = None
        if not allow_wan:
            self._reachability = ReachabilityFactory.reachability(None)
        # A live service is shared whatever path and options say: the client takes `service`.
        self._client = OfflineClient("", OfflineServiceOptions(), self._reachability)
        if self._reachability is not None:
            self._reachability.start()
        self._operation = self._client.download(
            region, None if domains is None else list(domains),
            progress=lambda p: self._loop.call_soon_threadsafe(self._progress.put_nowait, p),
            retry=RetryPolicy() if retry else RetryPolicy(max_attempts=1),
            network=NetworkPolicy.AnyNetwork if allow_wan else NetworkPolicy.NotOverWAN)
        self._result = asyncio.ensure_future(self._finish())

    async def _finish(self) -> Dict[OfflineDataDomain, OfflineDataPack]:
        try:
            await asyncio.shield(self._loop.run_in_executor(None, self._operation.wait))
        except asyncio.CancelledError:
            self._operation.cancel()
            raise
        finally:
            self._progress.put_nowait(None)
        packs = {}
        for result in self._operation.result():
            if result.outcome.is_error:
                raise OfflineError(result.outcome.error, result.domain)
            packs[result.domain] = result.outcome.value
        return packs

    def cancel(self) -> None:
        """Cancels the packs still under way."""
        self._operation.cancel()

    def __await__(self) -> Generator[object, None, Dict[OfflineDataDomain, OfflineDataPack]]:
        return self._result.__await__()

    async def __aiter__(self) -> AsyncIterator[PackProgress]:
        while True:
            try:
                progress = await self._progress.get()
            except asyncio.CancelledError:
                self._operation.cancel()
                raise
            if progress is None:
                return
            yield progress


def download(service: OfflineService, region: OfflineDataRegionMetadata,
             domains: Optional[Iterable[OfflineDataDomain]] = None, *, retry: bool = True,
             allow_wan: bool = True) -> Download:
    """Downloads the region's packs of `domains` (None: every pack it offers). Awaiting the result
    gives {domain: OfflineDataPack} once every pack is Available, or raises OfflineError with the
    first failed pack's error. retry=False asks once; allow_wan=False holds downloads back while
    the network is metered. Call it inside a running event loop."""
    return Download(service, region, domains, retry, allow_wan)
