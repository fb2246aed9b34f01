#include <atomic>

#include "bridge.hpp"
#include "conversions.hpp"

namespace terrane::python {

using namespace terrane::common;

namespace {

// A Python HTTP service: any object with set_max_requests_per_host(max), request(request,
// callback) -> id, cancel_request(id, callback), supports_keep_compression() -> bool and
// download(options, callback) -> id. The callbacks it is given may be called from any thread.
class HttpServiceBridge final : public HttpServiceInterface, public BridgeTarget {
  public:
    using BridgeTarget::BridgeTarget;

    void setMaxRequestsPerHost(std::uint8_t max) override {
        report(withMethod("set_max_requests_per_host", [&](py::object m) { m(max); }));
    }

    std::uint64_t request(HttpRequest&& request, HttpResponseCallback&& callback) override {
        auto shared = std::make_shared<HttpResponseCallback>(std::move(callback));
        auto called = std::make_shared<std::atomic<bool>>(false);
        std::uint64_t id = 0;
        HttpRequest copy = request;
        std::string failure = withTarget([&](py::object service) {
            py::cpp_function respond(
                [shared, called](const HttpResponse& response) {
                    if (called->exchange(true)) {
                        throw std::logic_error("the request has already been answered");
                    }
                    py::gil_scoped_release release;
                    (*shared)(HttpResponse(response));
                },
                py::arg("response"));
            id = service.attr("request")(std::move(request), respond).cast<std::uint64_t>();
        });
        if (id == 0 && !called->exchange(true)) {
            // The service is gone or failed: the request ends here rather than never.
            (*shared)(HttpResponse{std::move(copy),
                                   unexpected(HttpRequestError{
                                       HttpRequestErrorType::OtherError,
                                       failure.empty() ? "The HTTP service is gone" : failure})});
            return nextHttpRequestId();
        }
        return id;
    }

    void cancelRequest(std::uint64_t id, ResultCallback&& callback) override {
        auto shared = std::make_shared<ResultCallback>(std::move(callback));
        bool asked = false;
        report(withMethod("cancel_request", [&](py::object m) {
            m(id, py::cpp_function(
                      [shared](bool cancelled) {
                          py::gil_scoped_release release;
                          (*shared)(std::move(cancelled));
                      },
                      py::arg("cancelled")));
            asked = true;
        }));
        if (!asked) {
            (*shared)(false);
        }
    }

    bool supportsKeepCompression() override {
        bool supported = false;
        report(withMethod("supports_keep_compression",
                          [&](py::object m) { supported = m().cast<bool>(); }));
        return supported;
    }

    std::uint64_t download(DownloadOptions&& options, DownloadStatusCallback&& callback) override {
        auto shared = std::make_shared<DownloadStatusCallback>(std::move(callback));
        std::uint64_t id = 0;
        DownloadOptions copy = options;
        std::string failure = withTarget([&](py::object service) {
            py::cpp_function progress(
                [shared](const DownloadStatus& status) {
                    py::gil_scoped_release release;
                    (*shared)(DownloadStatus(status));
                },
                py::arg("status"));
            id = service.attr("download")(std::move(options), progress).cast<std::uint64_t>();
        });
        if (id == 0) {
            id = nextHttpRequestId();
            (*shared)(DownloadStatus(
                id, DownloadState::Failed,
                DownloadError{DownloadErrorCode::NetworkError,
                              failure.empty() ? "The HTTP service is gone" : failure},
                nullopt, 0, std::move(copy), nullopt));
        }
        return id;
    }

  private:
    // Failures that have no channel back to the core reach Python's unraisable hook.
    static void report(const std::string& failure) {
        if (!failure.empty()) {
            callPython([&] {
                PyErr_SetString(PyExc_RuntimeError, failure.c_str());
                PyErr_WriteUnraisable(nullptr);
            });
        }
    }
};

}  // namespace

void bindHttp(py::module_& module) {
    defineEnum<HttpMethod>(
        module, "HttpMethod",
        {{"Get", HttpMethod::Get}, {"Head", HttpMethod::Head}, {"Post", HttpMethod::Post}});
    defineEnum<HttpRequestErrorType>(module, "HttpRequestErrorType",
                                     {{"ConnectionError", HttpRequestErrorType::ConnectionError},
                                      {"SSLError", HttpRequestErrorType::SSLError},
                                      {"RequestCancelled", HttpRequestErrorType::RequestCancelled},
                                      {"RequestTimedOut", HttpRequestErrorType::RequestTimedOut},
                                      {"Reserved", HttpRequestErrorType::Reserved},
                                      {"OtherError", HttpRequestErrorType::OtherError}});
    defineEnum<DownloadState>(module, "DownloadState",
                              {{"Pending", DownloadState::Pending},
                               {"Downloading", DownloadState::Downloading},
                               {"Failed", DownloadState::Failed},
                               {"Finished", DownloadState::Finished}});
    defineEnum<DownloadErrorCode>(module, "DownloadErrorCode",
                                  {{"FileSystemError", DownloadErrorCode::FileSystemError},
                                   {"NetworkError", DownloadErrorCode::NetworkError},
                                   {"SizeExceeded", DownloadErrorCode::SizeExceeded}});
    defineEnum<UrlScheme>(module, "UrlScheme",
                          {{"Http", UrlScheme::Http}, {"Https", UrlScheme::Https}});

    RecordBinder<UAComponents>(module, "UAComponents", "The parts of the User-Agent header.")
        .field("app_name_component", &UAComponents::appNameComponent)
        .field("app_version_component", &UAComponents::appVersionComponent)
        .field("app_identifier_component", &UAComponents::appIdentifierComponent)
        .field("app_build_number_component", &UAComponents::appBuildNumberComponent)
        .field("os_name_component", &UAComponents::osNameComponent)
        .field("os_version_component", &UAComponents::osVersionComponent)
        .field("sdk_name_component", &UAComponents::sdkNameComponent)
        .field("sdk_version_component", &UAComponents::sdkVersionComponent)
        .field("sdk_identifier_component", &UAComponents::sdkIdentifierComponent)
        .field("sdk_build_number_component", &UAComponents::sdkBuildNumberComponent);
    RecordBinder<HttpRequest>(module, "HttpRequest", "One HTTP exchange as the caller wants it.")
        .field("method", &HttpRequest::method)
        .field("url", &HttpRequest::url)
        .field("headers", &HttpRequest::headers)
        .field("keep_compression", &HttpRequest::keepCompression)
        .field("timeout", &HttpRequest::timeout)
        .field("ua_components", &HttpRequest::uaComponents)
        .field("body", &HttpRequest::body);
    RecordBinder<HttpRequestError>(module, "HttpRequestError", "Why no response came.")
        .field("type", &HttpRequestError::type)
        .field("message", &HttpRequestError::message);
    RecordBinder<HttpResponseData>(module, "HttpResponseData", "What the server answered.")
        .field("headers", &HttpResponseData::headers)
        .field("code", &HttpResponseData::code)
        .field("data", &HttpResponseData::data);
    RecordBinder<HttpResponse>(module, "HttpResponse",
                               "A request with its outcome: Expected(value=HttpResponseData) or "
                               "Expected(error=HttpRequestError).")
        .field("request", &HttpResponse::request)
        .field("result", &HttpResponse::result);
    RecordBinder<DownloadError>(module, "DownloadError", "Why a download failed.")
        .field("code", &DownloadError::code)
        .field("message", &DownloadError::message);
    RecordBinder<DownloadOptions>(module, "DownloadOptions", "A file download.")
        .field("request", &DownloadOptions::request)
        .field("local_path", &DownloadOptions::localPath)
        .field("resume", &DownloadOptions::resume)
        .field("max_bytes", &DownloadOptions::maxBytes)
        .field("record_digest", &DownloadOptions::recordDigest);
    RecordBinder<DownloadStatus>(module, "DownloadStatus", "The state of one download.")
        .field("download_id", &DownloadStatus::downloadId)
        .field("state", &DownloadStatus::state)
        .field("error", &DownloadStatus::error)
        .field("total_bytes", &DownloadStatus::totalBytes)
        .field("received_bytes", &DownloadStatus::receivedBytes)
        .field("download_options", &DownloadStatus::downloadOptions)
        .field("http_result", &DownloadStatus::httpResult);

    module.def("next_http_request_id", &nextHttpRequestId,
               "A fresh request or download id for a Python HTTP service.");

    py::class_<HttpServiceFactory>(module, "HttpServiceFactory",
                                   "Chooses the HTTP service of the whole process.")
        .def_static(
            "set_user_defined",
            [](py::handle custom) {
                std::shared_ptr<HttpServiceInterface> service;
                if (!custom.is_none()) {
                    service = bridgeFor<HttpServiceBridge>(custom, "__terrane_http_service__");
                }
                py::gil_scoped_release release;
                HttpServiceFactory::setUserDefined(service);
            },
            py::arg("custom"),
            "Puts a Python HTTP service in force while it lives; None goes back to the default.")
        .def_static(
            "get_instance",
            []() -> py::object {
                optional<std::shared_ptr<HttpServiceInterface>> service;
                {
                    py::gil_scoped_release release;
                    service = HttpServiceFactory::getInstance();
                }
                py::object behind =
                    service ? objectBehind<HttpServiceBridge>(*service) : py::object(py::none());
                // A default made by this call goes again here, without the lock.
                py::gil_scoped_release release;
                service.reset();
                return behind;
            },
            "The Python service in force, or None while the platform default is.");

    py::class_<Url, std::shared_ptr<Url>>(module, "Url", "A finished URL.")
        .def(py::init<std::string>(), py::arg("url"))
        .def("get_string", &Url::getString)
        .def("__str__", &Url::getString)
        .def("__repr__", [](const Url& url) {
            return "Url(" + std::string(py::repr(py::str(url.getString()))) + ")";
        });
    py::class_<UrlBuilder>(module, "UrlBuilder", "Assembles an http or https URL from its parts.")
        .def(py::init<>())
        .def("scheme", &UrlBuilder::scheme, py::arg("scheme"))
        .def("host", &UrlBuilder::host, py::arg("host"))
        .def("port", &UrlBuilder::port, py::arg("port"))
        .def("add_path_segment", &UrlBuilder::addPathSegment, py::arg("segment"))
        .def("add_query_parameter", &UrlBuilder::addQueryParameter, py::arg("name"),
             py::arg("value"))
        .def("build", &UrlBuilder::build, "Expected(value=Url) or Expected(error=str).");
}

}  // namespace terrane::python
