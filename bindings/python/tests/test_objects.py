import gc
import os
import subprocess
import sys

import pytest

import terrane_common as t
from conftest import UrllibService

G, P = t.Geometry, t.Coordinate(latitude=1, longitude=2)


@pytest.mark.parametrize("value, json", [
    (None, "null"), (True, "true"), (-5, "-5"), (2**64 - 1, "18446744073709551615"),
    (-2**63, "-9223372036854775808"), (2.5, "2.5"), ("é", '"é"'), ((1, [None]), "[1,[null]]"),
    ({"a": {"b": None}}, '{"a":{"b":null}}'),
])
def test_values_convert_both_ways(value, json):
    assert t.ValueConverter.to_json(value) == json
    back = t.ValueConverter.from_json(json).value
    assert back == (list(value) if isinstance(value, tuple) else value)
    assert type(back) is type(value) or isinstance(value, tuple)


@pytest.mark.parametrize("geometry, extract", [
    (G.point(P), "extract_locations"), (G.line([P] * 2), "extract_locations_array"),
    (G.polygon([[P] * 4]), "extract_locations_2d_array"),
    (G.multi_polygon([[[P] * 4]]), "extract_locations_3d_array"),
    (G.geometry_collection([G.point(t.Coordinate())]), "extract_geometries_array"),
])
def test_geometries_convert_both_ways(geometry, extract):
    parsed = t.parse_geojson(geometry.to_geojson()).value
    assert parsed == geometry and getattr(geometry, extract)() == getattr(parsed, extract)()
    assert G.point(P).to_geojson() == '{"type":"Point","coordinates":[2.0,1.0]}'


@pytest.mark.parametrize("text, identifier", [
    ('"id": 7,', 7), ('"id": 1.5,', 1.5), ('"id": "x",', "x"), ("", None)])
def test_feature_identifier_and_properties(text, identifier):
    feature = t.parse_geojson('{"type": "Feature", %s "geometry": {"type": "Point", '
                              '"coordinates": [1, 2]}, "properties": {"a": [1, null]}}'
                              % text).value
    assert feature.properties == {"a": [1, None]}
    assert type(feature.identifier) is (object if identifier is None else type(identifier))
    assert identifier is None or feature.identifier == identifier


@pytest.mark.parametrize("call, error, message", [
    (lambda: t.OfflineService.get_instance("x", None), TypeError, "object must not be nil"),
    (lambda: t.LogConfiguration().register_log_writer_backend(None), TypeError, "must not be nil"),
    (lambda: t.OfflineClient("x", None), TypeError, "object must not be nil"),
    (lambda: t.OfflineDataPack(colour=1), TypeError, "unexpected keyword argument 'colour'"),
    (lambda: t._core._raise_cpp("standard"), t.Error, "standard failure"),
    (lambda: t._core._raise_cpp("other"), t.Error, r"Unknown C\+\+ exception"),
    (lambda: t.ValueConverter.to_json(2**64), OverflowError, ""),
    (lambda: t.ValueConverter.to_json({1: 2}), TypeError, ""),
    (lambda: t.ValueConverter.to_json({"a": b"x"}), TypeError, ""),
])
def test_errors_reach_python_as_exceptions(call, error, message):
    with pytest.raises(error, match=message):
        call()


def test_singletons_listeners_and_weakly_held_bridges(tmp_path):
    # Bridges whose Python object is gone go to nothing.
    http = UrllibService()
    t.HttpServiceFactory.set_user_defined(http)
    del http
    gc.collect()
    assert t.HttpServiceFactory.get_instance() is None
    options = t.OfflineServiceOptions(username="alice")
    assert t.OfflineService.get_instance(str(tmp_path), options) is \
        t.OfflineService.get_instance("elsewhere", options)
    network, heard = t.ReachabilityFactory.reachability("127.0.0.1"), []
    network.add_listener(heard.append)
    network.start()
    network.stop()
    assert heard == [network.current_network_status()]

    lines, configuration = [], t.LogConfiguration.get_instance()
    writer = type("Writer", (), {"write_log": lambda self, *line: lines.append(line)})()
    configuration.set_filter_level(t.LoggingLevel.Debug)
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
