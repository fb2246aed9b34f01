import gc
import os
import subprocess
import sys

import pytest

import terrane_common as t

C = t.Coordinate


def test_singletons_records_and_small_services(tmp_path):
    options = t.OfflineServiceOptions(username="alice")
    service = t.OfflineService.get_instance(str(tmp_path), options)
    assert t.OfflineService.get_instance("elsewhere", options) is service
    del service
    error = t.OfflineDataError(code=t.OfflineDataErrorCode.NotFound, message="gone")
    assert repr(error) == "OfflineDataError(code=<OfflineDataErrorCode.NotFound: 1>, message='gone')"
    assert len(t.TokenGenerator.get_sku_token(t.SKUIdentifier.Code04)) == 43
    builder = t.UrlBuilder()
    assert builder.build() == t.Expected(error="Host is not set")
    builder.host("example.com")
    builder.add_query_parameter("q", "")
    assert builder.build().value.get_string() == "https://example.com/?q"
    network = t.ReachabilityFactory.reachability("127.0.0.1")
    heard = []
    network.add_listener(heard.append)
    network.start()
    network.stop()
    assert heard == [network.current_network_status()]


@pytest.mark.parametrize("call, error, message", [
    (lambda: t.OfflineService.get_instance("x", None), TypeError, "object must not be nil"),
    (lambda: t.OfflineService.register_observer(None), TypeError, "object must not be nil"),
    (lambda: t.LogConfiguration().register_log_writer_backend(None), TypeError, "must not be nil"),
    (lambda: t.OfflineClient("x", None), TypeError, "object must not be nil"),
    (lambda: t.OfflineDataPack(colour=1), TypeError, "unexpected keyword argument 'colour'"),
    (lambda: t.Geometry.line([(1, 2)]), TypeError, ""),
    (lambda: t._core._raise_cpp("standard"), t.Error, "standard failure"),
    (lambda: t._core._raise_cpp("other"), t.Error, r"Unknown C\+\+ exception"),
    (lambda: t.ValueConverter.to_json(2**64), OverflowError, ""),
    (lambda: t.ValueConverter.to_json(-2**63 - 1), OverflowError, ""),
    (lambda: t.ValueConverter.to_json({1: 2}), TypeError, ""),
    (lambda: t.ValueConverter.to_json({"a": b"x"}), TypeError, ""),
])
def test_errors_reach_python_as_exceptions(call, error, message):
    with pytest.raises(error, match=message):
        call()


@pytest.mark.parametrize("value, json", [
    (None, "null"), (True, "true"), (5, "5"), (-5, "-5"), (2**64 - 1, "18446744073709551615"),
    (-2**63, "-9223372036854775808"), (2.5, "2.5"), ("é", '"é"'), ((1, [None]), "[1,[null]]"),
    ({"a": {"b": None}}, '{"a":{"b":null}}'),
])
def test_value_mapping(value, json):
    assert t.ValueConverter.to_json(value) == json
    back = t.ValueConverter.from_json(json).value
    assert back == (list(value) if isinstance(value, tuple) else value)
    assert type(back) is type(value) or isinstance(value, tuple)
    assert t.ValueConverter.from_json("") == t.Expected(
        error="Parse error at offset 0: The document is empty.")


P = C(latitude=1, longitude=2)


@pytest.mark.parametrize("kind, locations, extract", [
    ("point", P, "extract_locations"), ("line", [P] * 2, "extract_locations_array"),
    ("polygon", [[P] * 4], "extract_locations_2d_array"),
    ("multi_point", [P], "extract_locations_array"),
    ("multi_line", [[P] * 2], "extract_locations_2d_array"),
    ("multi_polygon", [[[P] * 4]], "extract_locations_3d_array"),
    ("geometry_collection", [t.Geometry.point(C())], "extract_geometries_array"),
])
def test_geometry_round_trip(kind, locations, extract):
    geometry = getattr(t.Geometry, kind)(locations)
    parsed = t.parse_geojson(geometry.to_geojson()).value
    assert parsed == geometry
    assert getattr(geometry, extract)() == getattr(parsed, extract)()
    assert t.Geometry.point(P).to_geojson() == '{"type":"Point","coordinates":[2.0,1.0]}'


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


def test_log_writers_are_held_weakly():
    lines = []

    class Writer:
        def write_log(self, level, message, category):
            lines.append((level, message, category))

    configuration = t.LogConfiguration.get_instance()
    assert t.LogConfiguration.get_instance() is configuration
    configuration.set_filter_level(t.LoggingLevel.Debug)
    writer = Writer()
    configuration.register_log_writer_backend(writer)
    assert configuration.get_log_writer_backend() is writer
    t.Log.warning("kept", "cat")
    del writer
    gc.collect()
    t.Log.error("dropped")
    assert lines == [(t.LoggingLevel.Warning, "kept", "cat")]
    assert configuration.get_log_writer_backend() is None
    configuration.register_log_writer_backend(t.SystemLogBackend())


def test_stubs_match_the_module():
    checked = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "terrane_common", "--concise", "--allowlist",
         os.path.join(os.path.dirname(__file__), "stubtest_allowlist.txt")],
        capture_output=True, text=True)
    assert checked.returncode == 0, checked.stdout
