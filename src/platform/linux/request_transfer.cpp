#include "platform/linux/request_transfer.hpp"

#include <utility>

#include "platform/linux/curl_error_mapping.hpp"
#include "terrane/http/transfer_limits.hpp"

namespace terrane::common {

RequestTransfer::RequestTransfer(HttpRequest request, HttpResponseCallback callback,
                                 DeliveryQueue& deliveries)
    : request_(std::move(request)), callback_(std::move(callback)), deliveries_(deliveries) {
}

bool RequestTransfer::start(const std::string& userAgent) {
    auto headers = buildHeaderList(request_, userAgent, {});
    if (!headers) {
        failed(headers.error());
        return false;
    }
    headers_ = std::move(*headers);
    auto easy = createEasyHandle(request_, headers_, errorBuffer_);
    if (!easy) {
        failed(easy.error());
        return false;
    }
    easy_ = std::move(*easy);
    CURL* handle = easy_.get();
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &RequestTransfer::onHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &RequestTransfer::onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(request_.timeout));
    maxBodyBytes_ = getTransferLimits().maxResponseBytes;
    return true;
}

std::size_t RequestTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<RequestTransfer*>(self);
    if (transfer.head_.feed({data, size * count}) == ResponseHead::Event::TooLarge) {
        transfer.headTooLarge_ = true;
        return 0;
    }
    return size * count;
}

std::size_t RequestTransfer::onBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<RequestTransfer*>(self);
    auto& body = transfer.body_;
    if (transfer.maxBodyBytes_ != 0 && body.size() + size * count > transfer.maxBodyBytes_) {
        // A body that never ends must not take the process's memory with it.
        transfer.bodyTooLarge_ = true;
        return 0;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
    body.insert(body.end(), bytes, bytes + size * count);
    return size * count;
}

CurlTransfer::Next RequestTransfer::complete(CURLcode result) {
    if (headTooLarge_ || bodyTooLarge_) {
        deliver(unexpected(
            HttpRequestError{HttpRequestErrorType::OtherError,
                             headTooLarge_ ? kResponseHeaderTooLarge : kResponseBodyTooLarge}));
        return Next::Done;
    }
    if (result != CURLE_OK) {
        deliver(unexpected(HttpRequestError{
            requestErrorTypeFor(result), curlErrorText(result, errorBuffer_, head_.isComplete())}));
        return Next::Done;
    }
    HttpResponseData data;
    data.headers = head_.headers();
    data.code = head_.code();
    if (data.code == 0) {
        long code = 0;
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &code);
        data.code = code;
    }
    data.data = std::move(body_);
    deliver(std::move(data));
    return Next::Done;
}

bool RequestTransfer::cancel() {
    deliver(
        unexpected(HttpRequestError{HttpRequestErrorType::RequestCancelled, "Request cancelled."}));
    return true;
}

void RequestTransfer::failed(const std::string& message) {
    deliver(unexpected(HttpRequestError{HttpRequestErrorType::OtherError, message}));
}

void RequestTransfer::abandon() {
    callback_ = nullptr;
}

void RequestTransfer::deliver(HttpResult result) {
    if (!callback_) {
        return;
    }
    deliveries_.push([callback = std::move(callback_),
                      response = HttpResponse{std::move(request_), std::move(result)}]() mutable {
        callback(std::move(response));
    });
    callback_ = nullptr;
}

}  // namespace terrane::common
