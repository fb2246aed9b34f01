#include "conversions.hpp"

namespace terrane::python {

using feature::value;
namespace geo = terrane::geometry;

py::object toPython(const value& source) {
    return source.match(
        [](const feature::null_value_t&) -> py::object { return py::none(); },
        [](bool flag) -> py::object { return py::bool_(flag); },
        [](std::uint64_t number) -> py::object { return py::int_(number); },
        [](std::int64_t number) -> py::object { return py::int_(number); },
        [](double number) -> py::object { return py::float_(number); },
        [](const std::string& text) -> py::object { return py::str(text); },
        [](const value::array_type& array) -> py::object {
            py::list list;
            for (const auto& element : array) {
                list.append(toPython(element));
            }
            return list;
        },
        [](const value::object_type& object) -> py::object { return toPython(object); });
}

py::dict toPython(const feature::property_map& properties) {
    py::dict dict;
    for (const auto& [key, member] : properties) {
        dict[py::str(key)] = toPython(member);
    }
    return dict;
}

feature::property_map propertiesFromPython(py::handle object) {
    if (!PyDict_Check(object.ptr())) {
        throw py::type_error("properties must be a dict with str keys");
    }
    feature::property_map properties;
    for (auto [key, member] : py::reinterpret_borrow<py::dict>(object)) {
        if (!PyUnicode_Check(key.ptr())) {
            throw py::type_error("dict keys must be str, not " +
                                 std::string(py::str(py::type::of(key).attr("__name__"))));
        }
        properties.emplace(key.cast<std::string>(), valueFromPython(member));
    }
    return properties;
}

value valueFromPython(py::handle object) {
    PyObject* raw = object.ptr();
    if (object.is_none()) {
        return value();
    }
    // bool is a subclass of int: it is asked first.
    if (PyBool_Check(raw)) {
        return value(raw == Py_True);
    }
    if (PyLong_Check(raw)) {
        int overflow = 0;
        long long signedValue = PyLong_AsLongLongAndOverflow(raw, &overflow);
        if (overflow == 0) {
            if (signedValue >= 0) {
                return value(static_cast<std::uint64_t>(signedValue));
            }
            return value(static_cast<std::int64_t>(signedValue));
        }
        if (overflow > 0) {
            unsigned long long unsignedValue = PyLong_AsUnsignedLongLong(raw);
            if (!PyErr_Occurred()) {
                return value(static_cast<std::uint64_t>(unsignedValue));
            }
            PyErr_Clear();
        }
        PyErr_SetString(PyExc_OverflowError, "int does not fit in 64 bits");
        throw py::error_already_set();
    }
    if (PyFloat_Check(raw)) {
        return value(PyFloat_AsDouble(raw));
    }
    if (PyUnicode_Check(raw)) {
        return value(object.cast<std::string>());
    }
    if (PyList_Check(raw) || PyTuple_Check(raw)) {
        value::array_type array;
        for (auto element : object) {
            array.push_back(valueFromPython(element));
        }
        return value(std::move(array));
    }
    if (PyDict_Check(raw)) {
        return value(propertiesFromPython(object));
    }
    throw py::type_error("value must be None, bool, int, float, str, list, tuple or dict, not " +
                         std::string(py::str(py::type::of(object).attr("__name__"))));
}

namespace {

struct Coordinate {
    double latitude = 0;
    double longitude = 0;
    friend bool operator==(const Coordinate&, const Coordinate&) = default;
};

geo::point toPoint(py::handle object) {
    if (!py::isinstance<Coordinate>(object)) {
        throw py::type_error("expected a Coordinate, not " +
                             std::string(py::str(py::type::of(object).attr("__name__"))));
    }
    const auto& coordinate = object.cast<const Coordinate&>();
    return {coordinate.longitude, coordinate.latitude};
}

py::object toCoordinate(const geo::point& point) {
    return py::cast(Coordinate{.latitude = point.y, .longitude = point.x});
}

// Nested sequences of coordinates, walked in order; no counts or closure are checked here.
template <typename Points>
Points pointsFrom(py::handle sequence) {
    Points points;
    for (auto element : sequence) {
        points.push_back(toPoint(element));
    }
    return points;
}

template <typename Outer, typename Inner, typename Convert>
Outer nestedFrom(py::handle sequence, Convert convert) {
    Outer outer;
    for (auto element : sequence) {
        outer.push_back(convert(element));
    }
    return outer;
}

template <typename Points>
py::list pointsTo(const Points& points) {
    py::list list;
    for (const auto& point : points) {
        list.append(toCoordinate(point));
    }
    return list;
}

template <typename Outer, typename Convert>
py::list nestedTo(const Outer& outer, Convert convert) {
    py::list list;
    for (const auto& inner : outer) {
        list.append(convert(inner));
    }
    return list;
}

template <typename T>
const T& holding(const geo::geometry& geometry, const char* what) {
    if (!geometry.is<T>()) {
        throw py::value_error(std::string("the geometry is not ") + what);
    }
    return geometry.get<T>();
}

py::object identifierToPython(const std::optional<feature::identifier>& id) {
    if (!id) {
        // Deliberately not None: a feature without identifier has an empty object.
        return py::module_::import("builtins").attr("object")();
    }
    return id->match([](const feature::null_value_t&) -> py::object { return py::none(); },
                     [](const auto& alternative) -> py::object { return py::cast(alternative); });
}

std::optional<feature::identifier> identifierFromPython(py::handle object) {
    if (object.is_none()) {
        return std::nullopt;
    }
    if (PyFloat_Check(object.ptr())) {
        return feature::identifier(object.cast<double>());
    }
    if (PyUnicode_Check(object.ptr())) {
        return feature::identifier(object.cast<std::string>());
    }
    if (PyLong_Check(object.ptr()) && !PyBool_Check(object.ptr())) {
        value number = valueFromPython(object);
        if (number.is<std::uint64_t>()) {
            return feature::identifier(number.get<std::uint64_t>());
        }
        return feature::identifier(number.get<std::int64_t>());
    }
    throw py::type_error("identifier must be None, int, float or str");
}

}  // namespace

void bindValues(py::module_& module) {
    py::class_<Expected>(module, "Expected", "A result: a value, or the error that prevented it.")
        .def(py::init([](py::object value, py::object error) {
                 return Expected{std::move(value), std::move(error)};
             }),
             py::kw_only(), py::arg("value") = py::none(), py::arg("error") = py::none())
        .def_readonly("value", &Expected::value)
        .def_readonly("error", &Expected::error)
        .def_property_readonly("is_value", &Expected::isValue)
        .def_property_readonly("is_error", [](const Expected& e) { return !e.isValue(); })
        .def("__eq__",
             [](const Expected& a, py::object b) {
                 if (!py::isinstance<Expected>(b)) {
                     return false;
                 }
                 const auto& other = b.cast<const Expected&>();
                 return a.value.equal(other.value) && a.error.equal(other.error);
             })
        .def("__repr__", [](const Expected& e) {
            return e.isValue() ? "Expected(value=" + std::string(py::repr(e.value)) + ")"
                               : "Expected(error=" + std::string(py::repr(e.error)) + ")";
        });
    module.attr("Expected").attr("__hash__") = py::none();

    RecordBinder<Coordinate>(module, "Coordinate", "A position: latitude and longitude.")
        .field("latitude", &Coordinate::latitude)
        .field("longitude", &Coordinate::longitude);

    py::class_<geo::geometry>(module, "Geometry", "A geometry; x is the longitude, y the latitude.")
        .def(py::init<>())
        .def_property_readonly("geometry_type",
                               [](const geo::geometry& g) { return static_cast<int>(g.which()); })
        .def_static("point", [](py::handle c) { return geo::geometry(toPoint(c)); })
        .def_static("line",
                    [](py::handle s) { return geo::geometry(pointsFrom<geo::line_string>(s)); })
        .def_static("multi_point",
                    [](py::handle s) { return geo::geometry(pointsFrom<geo::multi_point>(s)); })
        .def_static("polygon",
                    [](py::handle s) {
                        return geo::geometry(nestedFrom<geo::polygon, geo::linear_ring>(
                            s, pointsFrom<geo::linear_ring>));
                    })
        .def_static("multi_line",
                    [](py::handle s) {
                        return geo::geometry(nestedFrom<geo::multi_line_string, geo::line_string>(
                            s, pointsFrom<geo::line_string>));
                    })
        .def_static("multi_polygon",
                    [](py::handle s) {
                        return geo::geometry(
                            nestedFrom<geo::multi_polygon, geo::polygon>(s, [](py::handle p) {
                                return nestedFrom<geo::polygon, geo::linear_ring>(
                                    p, pointsFrom<geo::linear_ring>);
                            }));
                    })
        .def_static("geometry_collection",
                    [](py::handle s) {
                        geo::geometry_collection collection;
                        for (auto element : s) {
                            collection.push_back(requireRecord<geo::geometry>(element));
                        }
                        return geo::geometry(std::move(collection));
                    })
        .def("extract_locations",
             [](const geo::geometry& g) { return toCoordinate(holding<geo::point>(g, "a point")); })
        .def("extract_locations_array",
             [](const geo::geometry& g) {
                 if (g.is<geo::multi_point>()) {
                     return pointsTo(g.get<geo::multi_point>());
                 }
                 return pointsTo(holding<geo::line_string>(g, "a line string or multi-point"));
             })
        .def("extract_locations_2d_array",
             [](const geo::geometry& g) {
                 if (g.is<geo::multi_line_string>()) {
                     return nestedTo(g.get<geo::multi_line_string>(), pointsTo<geo::line_string>);
                 }
                 return nestedTo(holding<geo::polygon>(g, "a polygon or multi-line string"),
                                 pointsTo<geo::linear_ring>);
             })
        .def("extract_locations_3d_array",
             [](const geo::geometry& g) {
                 return nestedTo(
                     holding<geo::multi_polygon>(g, "a multi-polygon"),
                     [](const geo::polygon& p) { return nestedTo(p, pointsTo<geo::linear_ring>); });
             })
        .def("extract_geometries_array",
             [](const geo::geometry& g) {
                 py::list list;
                 for (const auto& element :
                      holding<geo::geometry_collection>(g, "a geometry collection")) {
                     list.append(py::cast(element));
                 }
                 return list;
             })
        .def("to_geojson", [](const geo::geometry& g) { return geojson::stringify(g); })
        .def(py::self == py::self)
        .def("__repr__", [](const geo::geometry& g) {
            return "Geometry(geometry_type=" + std::to_string(g.which()) +
                   ", geojson=" + std::string(py::repr(py::str(geojson::stringify(g)))) + ")";
        });
    module.attr("Geometry").attr("__hash__") = py::none();

    py::class_<feature::feature>(module, "Feature",
                                 "A geometry with properties and an optional identifier.")
        .def(py::init(
                 [](const geo::geometry& geometry, py::handle properties, py::handle identifier) {
                     return feature::feature{geometry, propertiesFromPython(properties),
                                             identifierFromPython(identifier)};
                 }),
             py::kw_only(), py::arg("geometry") = geo::geometry(),
             py::arg("properties") = py::dict(), py::arg("identifier") = py::none())
        .def_readwrite("geometry", &feature::feature::geometry)
        .def_property(
            "properties", [](const feature::feature& f) { return toPython(f.properties); },
            [](feature::feature& f, py::handle p) { f.properties = propertiesFromPython(p); })
        .def_property(
            "identifier", [](const feature::feature& f) { return identifierToPython(f.id); },
            [](feature::feature& f, py::handle id) { f.id = identifierFromPython(id); })
        .def(py::self == py::self)
        .def("__repr__", [](const feature::feature& f) {
            return "Feature(geometry=" + std::string(py::repr(py::cast(f.geometry))) +
                   ", properties=" + std::string(py::repr(toPython(f.properties))) +
                   ", identifier=" + std::string(py::repr(identifierToPython(f.id))) + ")";
        });
    module.attr("Feature").attr("__hash__") = py::none();

    module.def(
        "parse_geojson",
        [](const std::string& text) {
            Expected result;
            auto parsed = geojson::parse(text);
            if (!parsed) {
                result.error = py::str(parsed.error());
                return result;
            }
            result.value =
                parsed->match([](const geo::geometry& g) -> py::object { return py::cast(g); },
                              [](const feature::feature& f) -> py::object { return py::cast(f); },
                              [](const feature::feature_collection& c) -> py::object {
                                  py::list list;
                                  for (const auto& f : c) {
                                      list.append(py::cast(f));
                                  }
                                  return list;
                              });
            return result;
        },
        py::arg("text"),
        "Reads GeoJSON: a Geometry, a Feature or a list of Features, or the error text.");

    py::class_<common::ValueConverter>(module, "ValueConverter",
                                       "Converts between JSON text and Python values.")
        .def_static(
            "from_json",
            [](const std::string& json) {
                auto parsed = common::ValueConverter::fromJson(json);
                return parsed ? Expected{toPython(*parsed), py::none()}
                              : Expected{py::none(), py::str(parsed.error())};
            },
            py::arg("json"))
        .def_static(
            "to_json",
            [](py::handle v) { return common::ValueConverter::toJson(valueFromPython(v)); },
            py::arg("value"));
}

}  // namespace terrane::python
