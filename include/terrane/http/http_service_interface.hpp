#pragma once

#include <cstdint>
#include <functional>

#include "terrane/export.hpp"
#include "terrane/http/download.hpp"
#include "terrane/http/http_request.hpp"
#include "terrane/http/http_response.hpp"

namespace terrane::common {

// Called exactly once with the outcome of a request.
using HttpResponseCallback = std::function<void(HttpResponse&&)>;
// Called once with the answer to a cancellation.
using ResultCallback = std::function<void(bool)>;
// Called on every event of a download, the last time with a final state.
using DownloadStatusCallback = std::function<void(DownloadStatus&&)>;

// The one door through which the library reaches the network. The process-wide instance is chosen
// by HttpServiceFactory; applications may supply their own implementation.
//
// Threads: every operation may be called from any thread and must return without waiting for the
// network; the work itself runs later on threads of the service. Callbacks run on a thread of the
// service, never on the caller's thread inside the call, and nothing orders the first callback
// after the caller's receipt of the id. An implementation should not call one callback of an
// exchange while another callback of the same exchange is still running.
//
// Ownership: the service takes the records and callbacks it is given and keeps each callback until
// its last call; it owns nothing of the caller beyond that. Ids come from nextHttpRequestId(), so
// request and download ids never collide.
class TERRANE_EXPORT HttpServiceInterface {
  public:
    // Caps the number of concurrent connections per host. May be a hint only. Any thread.
    virtual void setMaxRequestsPerHost(std::uint8_t max) = 0;

    // Starts a request and returns its id at once. Any thread. The service owns the request and
    // the callback from here on; the callback is called exactly once, on a service thread, with
    // the response or the transport failure (an HTTP error status is a response), and is released
    // after that call. A GET or HEAD request sends no body even if one is set.
    virtual std::uint64_t request(HttpRequest&& request, HttpResponseCallback&& callback) = 0;

    // Cancels the request or download with that id. Any thread, including a callback of this
    // service. The callback is called once, on a service thread. It gets false when the service
    // holds nothing under that id (never issued, or a download that already reported its final
    // state). For a plain request it gets true once cancelled, and the request's own callback then
    // receives a RequestCancelled error. For a download it gets true only if resume data was
    // produced and stored, and the download's callback is not called again either way.
    virtual void cancelRequest(std::uint64_t id, ResultCallback&& callback) = 0;

    // Whether HttpRequest::keepCompression is honoured. Any thread.
    virtual bool supportsKeepCompression() = 0;

    // Starts downloading options.request into the file options.localPath and returns the id at
    // once. Any thread. The service owns the options and the callback from here on. The callback
    // is called on a service thread for every event, first with DownloadState::Pending, and once
    // more with a final state (Finished or Failed), after which it is released and never called
    // again. The file at localPath belongs to the caller once Finished has been reported.
    virtual std::uint64_t download(DownloadOptions&& options,
                                   DownloadStatusCallback&& callback) = 0;

    // The last holder may release the service from any thread except the service's own callback
    // threads: a service joins its threads when it is destroyed, and a callback must not be the
    // last holder of the service that calls it. Exchanges still in flight then end without a
    // final callback.
    virtual ~HttpServiceInterface() = default;
};

}  // namespace terrane::common
