#pragma once

#include <cstddef>
#include <string>

#include "platform/linux/curl_handles.hpp"
#include "platform/linux/curl_transfer.hpp"
#include "platform/linux/delivery_queue.hpp"
#include "platform/linux/easy_request.hpp"
#include "platform/linux/response_head.hpp"
#include "terrane/http/http_service_interface.hpp"

namespace terrane::common {

// A plain request: the whole body is collected in memory and the callback gets exactly one
// response or transport failure. request.timeout, when not 0, limits the whole exchange. A
// response head that is too large ends it with OtherError kResponseHeaderTooLarge.
//
// Engine thread only.
class RequestTransfer final : public CurlTransfer {
  public:
    RequestTransfer(HttpRequest request, HttpResponseCallback callback, DeliveryQueue& deliveries);

    // Sets up the easy handle. False when it could not be; the failure is queued then.
    bool start(const std::string& userAgent);

    CURL* handle() const override { return easy_.get(); }
    Next complete(CURLcode result) override;
    // Always true: the callback then receives RequestCancelled.
    bool cancel() override;
    void failed(const std::string& message) override;
    void abandon() override;

  private:
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
    void deliver(HttpResult result);

    HttpRequest request_;
    HttpResponseCallback callback_;
    DeliveryQueue& deliveries_;
    CurlHeaderList headers_;
    CurlErrorBuffer errorBuffer_{};
    CurlEasyHandle easy_;
    ResponseHead head_;
    HttpBody body_;
    bool headTooLarge_ = false;
    // From the transfer limits in force at start; 0: none.
    std::uint64_t maxBodyBytes_ = 0;
    bool bodyTooLarge_ = false;
};

}  // namespace terrane::common
