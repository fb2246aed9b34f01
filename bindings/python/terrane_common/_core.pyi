from typing import Any, ClassVar, Dict, Iterable, List, Optional

from typing import overload
import datetime
import enum
cancelled_message: str

class ConsoleLogBackend(LogWriterBackend):
    @overload
    def __init__(self) -> None: ...
    @overload
    def __init__(self, fd: int) -> None: ...

class Coordinate:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    latitude: float
    longitude: float
    def __copy__(self) -> Coordinate: ...
    def __eq__(self, other: object) -> bool: ...

class DownloadError:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    code: DownloadErrorCode
    message: str
    def __copy__(self) -> DownloadError: ...
    def __eq__(self, other: object) -> bool: ...

class DownloadErrorCode(enum.IntEnum):
    FileSystemError = 0
    NetworkError = 1
    SizeExceeded = 2

class DownloadOptions:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    local_path: str
    max_bytes: Optional[int]
    record_digest: bool
    request: HttpRequest
    resume: bool
    def __copy__(self) -> DownloadOptions: ...
    def __eq__(self, other: object) -> bool: ...

class DownloadState(enum.IntEnum):
    Pending = 0
    Downloading = 1
    Failed = 2
    Finished = 3

class DownloadStatus:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    download_id: int
    download_options: DownloadOptions
    error: Optional[DownloadError]
    http_result: Optional[Expected]
    received_bytes: int
    state: DownloadState
    total_bytes: Optional[int]
    def __copy__(self) -> DownloadStatus: ...
    def __eq__(self, other: object) -> bool: ...

class Error(RuntimeError): ...

class Expected:
    __hash__: ClassVar[None]  # type: ignore[assignment]
    def __init__(self, *args, **kwargs) -> None: ...
    def __eq__(self, other: object) -> bool: ...
    @property
    def error(self) -> object: ...
    @property
    def is_error(self) -> bool: ...
    @property
    def is_value(self) -> bool: ...
    @property
    def value(self) -> object: ...

class Feature:
    __hash__: ClassVar[None]  # type: ignore[assignment]
    geometry: Geometry
    identifier: object
    properties: dict
    def __init__(self, *args, **kwargs) -> None: ...
    def __eq__(self, other: object) -> bool: ...

class Geometry:
    __hash__: ClassVar[None]  # type: ignore[assignment]
    def __init__(self) -> None: ...
    def extract_geometries_array(self) -> list: ...
    def extract_locations(self) -> object: ...
    def extract_locations_2d_array(self) -> list: ...
    def extract_locations_3d_array(self) -> list: ...
    def extract_locations_array(self) -> list: ...
    @staticmethod
    def geometry_collection(geometries: Iterable[Geometry]) -> Geometry: ...
    @staticmethod
    def line(coordinates: Iterable[Coordinate]) -> Geometry: ...
    @staticmethod
    def multi_line(lines: Iterable[Iterable[Coordinate]]) -> Geometry: ...
    @staticmethod
    def multi_point(coordinates: Iterable[Coordinate]) -> Geometry: ...
    @staticmethod
    def multi_polygon(polygons: Iterable[Iterable[Iterable[Coordinate]]]) -> Geometry: ...
    @staticmethod
    def point(coordinate: Coordinate) -> Geometry: ...
    @staticmethod
    def polygon(rings: Iterable[Iterable[Coordinate]]) -> Geometry: ...
    def to_geojson(self) -> str: ...
    def __eq__(self, other: object) -> bool: ...
    @property
    def geometry_type(self) -> int: ...

class HttpMethod(enum.IntEnum):
    Get = 0
    Head = 1
    Post = 2

class HttpRequest:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    body: bytes
    headers: Dict[str,str]
    keep_compression: bool
    method: HttpMethod
    timeout: int
    ua_components: UAComponents
    url: str
    def __copy__(self) -> HttpRequest: ...
    def __eq__(self, other: object) -> bool: ...

class HttpRequestError:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    message: str
    type: HttpRequestErrorType
    def __copy__(self) -> HttpRequestError: ...
    def __eq__(self, other: object) -> bool: ...

class HttpRequestErrorType(enum.IntEnum):
    ConnectionError = 0
    SSLError = 1
    RequestCancelled = 2
    RequestTimedOut = 3
    Reserved = 4
    OtherError = 5

class HttpResponse:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    request: HttpRequest
    result: Expected
    def __copy__(self) -> HttpResponse: ...
    def __eq__(self, other: object) -> bool: ...

class HttpResponseData:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    code: int
    data: bytes
    headers: Dict[str,str]
    def __copy__(self) -> HttpResponseData: ...
    def __eq__(self, other: object) -> bool: ...

class HttpServiceFactory:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def get_instance() -> Optional[object]: ...
    @staticmethod
    def set_user_defined(custom: Optional[object]) -> None: ...

class Log:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def debug(message: str, category: Optional[str] = ...) -> None: ...
    @staticmethod
    def error(message: str, category: Optional[str] = ...) -> None: ...
    @staticmethod
    def info(message: str, category: Optional[str] = ...) -> None: ...
    @staticmethod
    def warning(message: str, category: Optional[str] = ...) -> None: ...

class LogConfiguration:
    def __init__(self) -> None: ...
    def get_filter_level(self) -> LoggingLevel: ...
    @staticmethod
    def get_instance() -> LogConfiguration: ...
    def get_log_writer_backend(self) -> object: ...
    def register_log_writer_backend(self, log_writer: object) -> None: ...
    def set_filter_level(self, level: LoggingLevel) -> None: ...

class LogWriterBackend:
    def __init__(self, *args, **kwargs) -> None: ...
    def write_log(self, level: LoggingLevel, message: str, category: Optional[str] = ...) -> None: ...

class LoggingLevel(enum.IntEnum):
    Debug = 0
    Info = 1
    Warning = 2
    Error = 3

class NetworkPolicy(enum.IntEnum):
    AnyNetwork = 0
    NotOverWAN = 1

class NetworkStatus(enum.IntEnum):
    NotReachable = 0
    ReachableViaWiFi = 1
    ReachableViaWAN = 2

class OfflineClient:
    def __init__(self, path: str, options: object, reachability = ...) -> None: ...
    def add_observer(self, observer: object) -> None: ...
    def download(self, *args, **kwargs) -> Any: ...
    def find_region(self, id: str, revision: Optional[int] = ..., timeout: float = ...) -> Expected: ...
    def list_regions(self, timeout: float) -> Expected: ...
    def remove(self, region: object, domains: object = ...) -> PackOperation: ...
    def remove_observer(self, observer: object) -> None: ...
    def stored(self) -> List[PackState]: ...

class OfflineDataDomain(enum.IntEnum):
    Maps = 0
    Navigation = 1

class OfflineDataError:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    code: OfflineDataErrorCode
    message: str
    def __copy__(self) -> OfflineDataError: ...
    def __eq__(self, other: object) -> bool: ...

class OfflineDataErrorCode(enum.IntEnum):
    Unknown = 0
    NotFound = 1
    Unauthorized = 2
    RateLimited = 3
    Connection = 4
    Server = 5
    InvalidResponse = 6
    Corrupt = 7
    Filesystem = 8

class OfflineDataPack:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    bytes: int
    error: Optional[OfflineDataError]
    path: str
    status: OfflineDataPackStatus
    def __copy__(self) -> OfflineDataPack: ...
    def __eq__(self, other: object) -> bool: ...

class OfflineDataPackMetadata:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    bytes: int
    data_version: str
    format: int
    md5_checksum: str
    url: str
    def __copy__(self) -> OfflineDataPackMetadata: ...
    def __eq__(self, other: object) -> bool: ...

class OfflineDataPackStatus(enum.IntEnum):
    Pending = 0
    Downloading = 1
    Incomplete = 2
    Verifying = 3
    Available = 4
    Expired = 5
    Errored = 6
    Deleting = 7
    Deleted = 8

class OfflineDataRegionMetadata:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    description: str
    geography: Geometry
    id: str
    last_updated: datetime.datetime
    map_pack: Optional[OfflineDataPackMetadata]
    name: str
    navigation_pack: Optional[OfflineDataPackMetadata]
    revision: int
    def __copy__(self) -> OfflineDataRegionMetadata: ...
    def __eq__(self, other: object) -> bool: ...

class OfflineService:
    def __init__(self, *args, **kwargs) -> None: ...
    def cancel_pack_download(self, domain: OfflineDataDomain, region: object) -> None: ...
    def delete_pack(self, domain: OfflineDataDomain, region: object) -> None: ...
    def download_pack(self, domain: OfflineDataDomain, region: object) -> None: ...
    @staticmethod
    def find_storage_holder(path: str, options: OfflineServiceOptions) -> Optional[OfflineStorageHolder]: ...
    @staticmethod
    def get_instance(path: str, options: OfflineServiceOptions) -> OfflineService: ...
    def list_available_regions(self, callback: object) -> None: ...
    @staticmethod
    def register_observer(observer: object) -> None: ...
    @staticmethod
    def unregister_observer(observer: object) -> None: ...

class OfflineServiceOptions:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    access_token: str
    base_url: Optional[str]
    username: str
    def __copy__(self) -> OfflineServiceOptions: ...
    def __eq__(self, other: object) -> bool: ...

class OfflineStorageHolder:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    path: str
    pid: Optional[int]
    def __copy__(self) -> OfflineStorageHolder: ...
    def __eq__(self, other: object) -> bool: ...

class PackOperation:
    def __init__(self, *args, **kwargs) -> None: ...
    def cancel(self) -> None: ...
    def done(self) -> bool: ...
    def result(self) -> List[PackResult]: ...
    def wait(self, timeout: Optional[float] = ...) -> bool: ...

class PackProgress:
    _fields: ClassVar[tuple[str, ...]]
    attempt: int
    bytes_done: int
    bytes_total: int
    domain: OfflineDataDomain
    last_error: Optional[OfflineDataError]
    next_retry: Optional[float]
    region_id: str
    resumed_from: int
    revision: int
    state: OfflineDataPackStatus
    waiting_for_network: bool
    def __copy__(self) -> PackProgress: ...

class PackResult:
    _fields: ClassVar[tuple[str, ...]]
    cancelled: bool
    domain: OfflineDataDomain
    outcome: Expected
    def __copy__(self) -> PackResult: ...

class PackState:
    _fields: ClassVar[tuple[str, ...]]
    domain: OfflineDataDomain
    pack: OfflineDataPack
    region: OfflineDataRegionMetadata
    def __copy__(self) -> PackState: ...

class ReachabilityFactory:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def reachability(hostname: Optional[str] = ...) -> ReachabilityInterface: ...

class ReachabilityInterface:
    def __init__(self, *args, **kwargs) -> None: ...
    def add_listener(self, listener: object) -> None: ...
    def current_network_status(self) -> NetworkStatus: ...
    def is_reachable(self) -> bool: ...
    def start(self) -> None: ...
    def stop(self) -> None: ...

class RetryPolicy:
    _fields: ClassVar[tuple[str, ...]]
    initial_delay: datetime.timedelta
    jitter: float
    max_attempts: Optional[int]
    max_delay: datetime.timedelta
    def __copy__(self) -> RetryPolicy: ...

class SKUIdentifier(enum.IntEnum):
    Code00 = 0
    Code03 = 1
    Code04 = 2
    Code06 = 3

class SystemLogBackend(LogWriterBackend):
    def __init__(self) -> None: ...

class TokenGenerator:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def get_sku_token(identifier: SKUIdentifier) -> str: ...

class UAComponents:
    _fields: ClassVar[tuple[str, ...]]
    __hash__: ClassVar[None]  # type: ignore[assignment]
    app_build_number_component: str
    app_identifier_component: str
    app_name_component: str
    app_version_component: str
    os_name_component: str
    os_version_component: str
    sdk_build_number_component: str
    sdk_identifier_component: str
    sdk_name_component: str
    sdk_version_component: str
    def __copy__(self) -> UAComponents: ...
    def __eq__(self, other: object) -> bool: ...

class Url:
    def __init__(self, url: str) -> None: ...
    def get_string(self) -> str: ...

class UrlBuilder:
    def __init__(self) -> None: ...
    def add_path_segment(self, segment: str) -> None: ...
    def add_query_parameter(self, name: str, value: str) -> None: ...
    def build(self) -> Expected: ...
    def host(self, host: str) -> None: ...
    def port(self, port: int) -> None: ...
    def scheme(self, scheme: UrlScheme) -> None: ...

class UrlScheme(enum.IntEnum):
    Http = 0
    Https = 1

class ValueConverter:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def from_json(json: str) -> Expected: ...
    @staticmethod
    def to_json(value: object) -> str: ...

class Version:
    def __init__(self, *args, **kwargs) -> None: ...
    @staticmethod
    def get_common_sdk_version_string() -> str: ...
    @staticmethod
    def get_major_version() -> int: ...
    @staticmethod
    def get_minor_version() -> int: ...
    @staticmethod
    def get_patch_version() -> int: ...

class _Bridge:
    def __init__(self, *args, **kwargs) -> None: ...

def _raise_cpp(kind: str) -> None: ...
def common_function_pointers() -> dict: ...
def find_region(catalogue: List[OfflineDataRegionMetadata], id: str, revision: Optional[int] = ...) -> Expected: ...
def next_http_request_id() -> int: ...
def parse_geojson(text: str) -> Expected: ...
