#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <utility>

// Owning wrappers for the libcurl resources of the HTTP engine, so that every exit path, early
// returns and shutdown included, releases them (files: base::io::FileDescriptor). Each wrapper
// belongs to one thread at a time, like the resource it wraps.

namespace terrane::common {

struct CurlEasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using CurlEasyHandle = std::unique_ptr<CURL, CurlEasyDeleter>;

struct CurlMultiDeleter {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using CurlMultiHandle = std::unique_ptr<CURLM, CurlMultiDeleter>;

// A header list for CURLOPT_HTTPHEADER. It must outlive every transfer that uses it.
class CurlHeaderList {
  public:
    CurlHeaderList() = default;
    CurlHeaderList(const CurlHeaderList&) = delete;
    CurlHeaderList& operator=(const CurlHeaderList&) = delete;
    CurlHeaderList(CurlHeaderList&& other) noexcept : list_(std::exchange(other.list_, nullptr)) {}
    CurlHeaderList& operator=(CurlHeaderList&& other) noexcept {
        std::swap(list_, other.list_);
        return *this;
    }
    ~CurlHeaderList() { curl_slist_free_all(list_); }

    // False when libcurl could not allocate the entry; the list is unchanged then.
    bool append(const std::string& line) {
        curl_slist* extended = curl_slist_append(list_, line.c_str());
        if (extended == nullptr) {
            return false;
        }
        list_ = extended;
        return true;
    }

    curl_slist* get() const { return list_; }

  private:
    curl_slist* list_ = nullptr;
};

}  // namespace terrane::common
