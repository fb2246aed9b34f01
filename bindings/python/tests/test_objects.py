import gc
import os
import subprocess
import sys
import math

import pytest

import terrane_common as t

C = t.Coordinate


def test_identity(tmp_path):
    options = t.OfflineServiceOptions(username="alice")
    service = t.OfflineService.get_instance(str(tmp_path), options)
    assert t.OfflineService.get_instance("elsewhere", options) is service
    configuration = t.LogConfiguration.get_instance()
    assert t.LogConfiguration.get_instance() is configuration
    sink = t.ConsoleLogBackend()
    configuration.register_log_writer_backend(sink)
    assert configuration.get_log_writer_backend() is sink


def test_records_convert_field_by_field():
    error = t.OfflineDataError(code=t.OfflineDataErrorCode.NotFound, message="gone")
    pack = t.OfflineDataPack(status=t.OfflineDataPackStatus.Errored, error=error, bytes=7)
    assert pack == t.OfflineDataPack(status=6, error=error, bytes=7)
    assert repr(error) == "OfflineDataError(code=<OfflineDataErrorCode.NotFound: 1>, message='gone')"
    with pytest.raises(TypeError, match="unexpected keyword argument 'colour'"):
        t.OfflineDataPack(colour=1)


@pytest.mark.parametrize("call", [
    lambda: t.OfflineService.get_instance("x", None),
    lambda: t.OfflineService.register_observer(None),
    lambda: t.LogConfiguration().register_log_writer_backend(None),
    lambda: t.OfflineClient("x", None),
])
def test_none_where_an_object_is_required(call):
    with pytest.raises(TypeError, match="object must not be nil"):
        call()


@pytest.mark.parametrize("value, json", [
    (None, "null"), (True, "true"), (5, "5"), (-5, "-5"), (2**64 - 1, "18446744073709551615"),
    (-2**63, "-9223372036854775808"), (2.5, "2.5"), ("é", '"é"'), ((1, [None]), "[1,[null]]"),
    ({"a": {"b": None}}, '{"a":{"b":null}}'),
    (2**64, OverflowError), (-2**63 - 1, OverflowError), ({1: 2}, TypeError), (b"x", TypeError),
    ({"a": object()}, TypeError),
])
def test_value_mapping(value, json):
    if isinstance(json, type):
        with pytest.raises(json):
            t.ValueConverter.to_json(value)
        return
    assert t.ValueConverter.to_json(value) == json
    back = t.ValueConverter.from_json(json).value
    assert back == (list(value) if isinstance(value, tuple) else value)
    assert type(back) is type(value) or isinstance(value, tuple)


def test_bad_json_is_an_error_value():
    assert t.ValueConverter.from_json("") == t.Expected(
        error="Parse error at offset 0: The document is empty.")


@pytest.mark.parametrize("make, kind, extract", [
    (lambda: t.Geometry(), 0, None),
    (lambda: t.Geometry.point(C(latitude=1, longitude=2)), 1, "extract_locations"),
    (lambda: t.Geometry.line([C(latitude=1, longitude=2)] * 2), 2, "extract_locations_array"),
    (lambda: t.Geometry.polygon([[C(latitude=1, longitude=2)] * 4]), 3,
     "extract_locations_2d_array"),
    (lambda: t.Geometry.multi_point([C(latitude=3, longitude=4)]), 4, "extract_locations_array"),
    (lambda: t.Geometry.multi_line([[C(latitude=3, longitude=4)] * 2]), 5,
     "extract_locations_2d_array"),
    (lambda: t.Geometry.multi_polygon([[[C(latitude=5, longitude=6)] * 4]]), 6,
     "extract_locations_3d_array"),
    (lambda: t.Geometry.geometry_collection([t.Geometry.point(C())]), 7,
     "extract_geometries_array"),
])
def test_geometry_round_trip(make, kind, extract):
    geometry = make()
    assert geometry.geometry_type == kind
    parsed = t.parse_geojson(geometry.to_geojson()).value
    assert parsed == geometry or kind == 0
    if extract:
        again = getattr(geometry, extract)()
        assert again == getattr(parsed, extract)()
    if kind == 1:
        assert geometry.to_geojson() == '{"type":"Point","coordinates":[2.0,1.0]}'


def test_geometry_refuses_what_is_no_coordinate():
    with pytest.raises(TypeError):
        t.Geometry.line([(1, 2)])


@pytest.mark.parametrize("text, identifier", [
    ('"id": 7,', 7), ('"id": -7,', -7), ('"id": 1.5,', 1.5), ('"id": "x",', "x"), ("", None)])
def test_feature_identifier(text, identifier):
    feature = t.parse_geojson('{"type": "Feature", %s "geometry": {"type": "Point", '
                              '"coordinates": [1, 2]}, "properties": {"a": [1, null]}}'
                              % text).value
    assert feature.properties == {"a": [1, None]}
    if identifier is None:
        assert type(feature.identifier) is object
    else:
        assert feature.identifier == identifier and type(feature.identifier) is type(identifier)


@pytest.mark.parametrize("kind, message", [
    ("standard", "standard failure"), ("other", r"Unknown C\+\+ exception")])
def test_cpp_exceptions_become_error(kind, message):
    with pytest.raises(t.Error, match=message) as raised:
        t._core._raise_cpp(kind)
    assert isinstance(raised.value, RuntimeError)


def test_dropped_log_writer_receives_nothing():
    lines = []

    class Writer:
        def write_log(self, level, message, category):
            lines.append((level, message, category))

    configuration = t.LogConfiguration.get_instance()
    configuration.set_filter_level(t.LoggingLevel.Debug)
    writer = Writer()
    configuration.register_log_writer_backend(writer)
    t.Log.warning("kept", "cat")
    del writer
    gc.collect()
    t.Log.error("dropped")
    assert lines == [(t.LoggingLevel.Warning, "kept", "cat")]
    assert configuration.get_log_writer_backend() is None
    configuration.register_log_writer_backend(t.SystemLogBackend())


def test_url_builder():
    builder = t.UrlBuilder()
    assert builder.build() == t.Expected(error="Host is not set")
    builder.host("example.com")
    builder.port(8080)
    builder.add_path_segment("a")
    builder.add_query_parameter("q", "")
    assert builder.build().value.get_string() == "http://example.com:8080/a?q".replace(
        "http:", "https:")


def test_small_services():
    assert len(t.TokenGenerator.get_sku_token(t.SKUIdentifier.Code04)) == 43
    assert t.Version.get_common_sdk_version_string() == "%d.%d.%d" % (
        t.Version.get_major_version(), t.Version.get_minor_version(),
        t.Version.get_patch_version())
    assert list(t.common_function_pointers())[0] == "terrane_common_get_major_version"
    network = t.ReachabilityFactory.reachability("127.0.0.1")
    heard = []
    network.add_listener(heard.append)
    network.start()
    network.stop()
    assert heard == [network.current_network_status()] and not math.isnan(len(heard))


def test_stubs_match_the_module():
    checked = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "terrane_common", "--concise", "--allowlist",
         os.path.join(os.path.dirname(__file__), "stubtest_allowlist.txt")],
        capture_output=True, text=True)
    assert checked.returncode == 0, checked.stdout
