#pragma once

// What crosses the boundary and how: every unit of the module includes this header first, so
// that the conversions below are the only ones in force (pybind11 requires that).

#include <pybind11/chrono.h>
#include <pybind11/operators.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <concepts>
#include <cstdint>
#include <string>
#include <typeinfo>
#include <vector>

#include "terrane/common.hpp"

namespace terrane::python {

namespace py = pybind11;

// A value or an error, as every fallible result reaches Python. Read-only once made.
struct Expected {
    py::object value = py::none();
    py::object error = py::none();
    // True also when both are None: a successful result may carry nothing.
    bool isValue() const { return !value.is_none() || error.is_none(); }
};

// The Python enum class standing for the core enumeration E (set up by defineEnum).
template <typename E>
py::handle& enumClass() {
    static py::handle type;
    return type;
}

// Makes an enum.IntEnum named `name` with the core's values and registers it for E.
template <typename E>
void defineEnum(py::module_& module, const char* name,
                std::initializer_list<std::pair<const char*, E>> members) {
    py::list items;
    for (const auto& [memberName, value] : members) {
        items.append(py::make_tuple(memberName, static_cast<std::int64_t>(value)));
    }
    py::object type = py::module_::import("enum").attr("IntEnum")(
        name, items, py::arg("module") = module.attr("__name__"));
    module.attr(name) = type;
    // The module keeps the class alive for the life of the process.
    enumClass<E>() = type;
}

// Core value <-> Python object, as Part of the value model: None, bool, int, float, str, list
// and dict. Converting raises TypeError (an unsupported type or key) or OverflowError (an integer
// outside 64 bits).
py::object toPython(const feature::value& value);
feature::value valueFromPython(py::handle object);
py::dict toPython(const feature::property_map& properties);
feature::property_map propertiesFromPython(py::handle object);

// A record argument that may not be None.
template <typename T>
const T& requireRecord(py::handle object) {
    if (object.is_none()) {
        throw py::type_error("object must not be nil");
    }
    return object.cast<const T&>();
}

// Binds a plain record: default construction, the fields as read-write attributes (in
// `_fields`, which the package's Python half turns into keyword construction and a repr), and
// equality.
template <typename T>
class RecordBinder {
  public:
    RecordBinder(py::module_& module, const char* name, const char* doc = "")
        : class_(module, name, doc) {
        class_.def(py::init<>());
        if constexpr (std::equality_comparable<T>) {
            class_.def(py::self == py::self);
        }
        class_.def("__copy__", [](const T& record) { return T(record); });
    }
    template <typename M>
    RecordBinder& field(const char* name, M T::*member) {
        class_.def_readwrite(name, member);
        fields_.append(name);
        return *this;
    }
    template <typename Get, typename Set>
    RecordBinder& property(const char* name, Get get, Set set) {
        class_.def_property(name, get, set);
        fields_.append(name);
        return *this;
    }
    ~RecordBinder() { class_.attr("_fields") = py::tuple(fields_); }
    py::class_<T>& cls() { return class_; }

  private:
    py::class_<T> class_;
    py::list fields_;
};

void bindSupport(py::module_& module);
void bindValues(py::module_& module);
void bindLog(py::module_& module);
void bindHttp(py::module_& module);
void bindOffline(py::module_& module);
void bindClient(py::module_& module);
void bindPlatform(py::module_& module);

}  // namespace terrane::python

namespace pybind11::detail {

// Core enumerations are enum.IntEnum members in Python; plain ints are accepted when they name a
// member (anything else raises ValueError before the core sees it).
template <typename E>
bool loadEnum(handle source, E& value) {
    if (!PyLong_Check(source.ptr()) || PyBool_Check(source.ptr())) {
        return false;
    }
    object member = reinterpret_borrow<object>(terrane::python::enumClass<E>())(source);
    value = static_cast<E>(member.cast<std::int64_t>());
    return true;
}

template <typename E>
handle castEnum(E source) {
    return terrane::python::enumClass<E>()(static_cast<std::int64_t>(source)).release();
}

#define TERRANE_INT_ENUM(E)                                                          \
    template <>                                                                      \
    struct type_caster<terrane::common::E> {                                         \
        PYBIND11_TYPE_CASTER(terrane::common::E, const_name(#E));                    \
        bool load(handle source, bool) { return loadEnum(source, value); }           \
        static handle cast(terrane::common::E source, return_value_policy, handle) { \
            return castEnum(source);                                                 \
        }                                                                            \
    };
TERRANE_INT_ENUM(OfflineDataDomain)
TERRANE_INT_ENUM(OfflineDataErrorCode)
TERRANE_INT_ENUM(OfflineDataPackStatus)
TERRANE_INT_ENUM(HttpMethod)
TERRANE_INT_ENUM(HttpRequestErrorType)
TERRANE_INT_ENUM(DownloadState)
TERRANE_INT_ENUM(DownloadErrorCode)
TERRANE_INT_ENUM(UrlScheme)
TERRANE_INT_ENUM(LoggingLevel)
TERRANE_INT_ENUM(NetworkStatus)
TERRANE_INT_ENUM(SKUIdentifier)
TERRANE_INT_ENUM(NetworkPolicy)
#undef TERRANE_INT_ENUM

// HTTP bodies are bytes.
template <>
struct type_caster<std::vector<std::uint8_t>> {
    PYBIND11_TYPE_CASTER(std::vector<std::uint8_t>, const_name("bytes"));
    bool load(handle source, bool) {
        if (!PyBytes_Check(source.ptr()) && !PyByteArray_Check(source.ptr())) {
            return false;
        }
        std::string bytes = reinterpret_borrow<object>(source).cast<std::string>();
        value.assign(bytes.begin(), bytes.end());
        return true;
    }
    static handle cast(const std::vector<std::uint8_t>& source, return_value_policy, handle) {
        return bytes(reinterpret_cast<const char*>(source.data()), source.size()).release();
    }
};

// Millisecond times of the offline records are timezone-aware UTC datetimes; naive ones are read
// as UTC.
template <>
struct type_caster<terrane::common::OfflineDataTimePoint> {
    PYBIND11_TYPE_CASTER(terrane::common::OfflineDataTimePoint, const_name("datetime.datetime"));
    bool load(handle source, bool) {
        object datetime = module_::import("datetime");
        if (!isinstance(source, datetime.attr("datetime"))) {
            return false;
        }
        object utc = datetime.attr("timezone").attr("utc");
        object epoch = datetime.attr("datetime")(1970, 1, 1, arg("tzinfo") = utc);
        object moment = reinterpret_borrow<object>(source);
        if (moment.attr("tzinfo").is_none()) {
            moment = moment.attr("replace")(arg("tzinfo") = utc);
        }
        object delta = moment - epoch;
        std::int64_t ms =
            (delta.attr("__floordiv__")(datetime.attr("timedelta")(arg("milliseconds") = 1)))
                .cast<std::int64_t>();
        value = terrane::common::OfflineDataTimePoint(std::chrono::milliseconds(ms));
        return true;
    }
    static handle cast(const terrane::common::OfflineDataTimePoint& source, return_value_policy,
                       handle) {
        object datetime = module_::import("datetime");
        object utc = datetime.attr("timezone").attr("utc");
        object epoch = datetime.attr("datetime")(1970, 1, 1, arg("tzinfo") = utc);
        return (epoch +
                datetime.attr("timedelta")(arg("milliseconds") = source.time_since_epoch().count()))
            .release();
    }
};

// Fallible results are Expected objects, in both directions.
template <typename T, typename E>
struct type_caster<std::expected<T, E>> {
    using Result = std::expected<T, E>;
    PYBIND11_TYPE_CASTER(Result, const_name("Expected"));
    bool load(handle source, bool) {
        if (!isinstance<terrane::python::Expected>(source)) {
            return false;
        }
        const auto& result = source.cast<const terrane::python::Expected&>();
        if (result.isValue()) {
            value = result.value.template cast<T>();
        } else {
            value = std::unexpected(result.error.template cast<E>());
        }
        return true;
    }
    template <typename Source>
    static handle cast(Source&& source, return_value_policy, handle) {
        terrane::python::Expected result;
        if (source) {
            result.value = pybind11::cast(std::forward<Source>(source).value());
        } else {
            result.error = pybind11::cast(std::forward<Source>(source).error());
        }
        return pybind11::cast(std::move(result)).release();
    }
};

}  // namespace pybind11::detail
