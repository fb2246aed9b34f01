// Reading a region catalogue of 10,000 regions (about 30 MB of JSON) through the offline service,
// against RapidJSON parsing the same bytes into a document.
//
// Ours: the time from OfflineService::listAvailableRegions until its callback holds the 10,000
// regions. The HTTP service is an application-defined one that answers from memory with a
// response prepared before the clock starts, so the figure is the worker's own work: posting,
// parsing the body, building every region and handing the list over; no network.
// Anchor: rapidjson::Document::Parse over the same bytes, nothing else.
//
// Best of several rounds, the two alternating.

#include <rapidjson/document.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_results.hpp"
#include "terrane/http/http_service_factory.hpp"
#include "terrane/http/http_service_interface.hpp"
#include "terrane/http/request_id.hpp"
#include "terrane/offline/offline_service.hpp"

namespace {

namespace fs = std::filesystem;
using namespace terrane::common;
using Clock = std::chrono::steady_clock;

constexpr int regionCount = 10'000;
constexpr int rounds = 5;

// About 3 KB per region: names, two packs and a polygon of 80 points.
std::string catalogue() {
    std::string text = "{";
    char buffer[256];
    for (int region = 0; region < regionCount; ++region) {
        std::snprintf(buffer, sizeof buffer,
                      "%s\n\"region-%d\": {\"name\": \"Region %d\", \"description\": \"A region "
                      "of the catalogue benchmark\", \"revision\": %d, \"last_updated\": "
                      "\"2024-03-01T12:00:00.000Z\", \"configuration\": {\"geography\": "
                      "{\"type\": \"Polygon\", \"coordinates\": [[",
                      region == 0 ? "" : ",", region, region, 1 + region % 7);
        text += buffer;
        const double x = region % 360 - 180.0;
        const double y = region % 170 - 85.0;
        for (int point = 0; point < 80; ++point) {
            const double step = point == 79 ? 0 : point * 0.00618034;
            std::snprintf(buffer, sizeof buffer, "%s[%.10f, %.10f]", point == 0 ? "" : ", ",
                          x + step, y + step * step);
            text += buffer;
        }
        std::snprintf(buffer, sizeof buffer,
                      "]]}}, \"packs\": [{\"domain\": \"maps\", \"format\": 1, \"url\": "
                      "\"terrane://offline-data/packs/region-%d/maps\", ",
                      region);
        text += buffer;
        text +=
            "\"md5_checksum\": \"0123456789abcdef0123456789abcdef\", \"size\": 123456789, "
            "\"data_version\": \"2024.1\"}, {\"domain\": \"navigation\", \"format\": 1, ";
        std::snprintf(buffer, sizeof buffer,
                      "\"url\": \"terrane://offline-data/packs/region-%d/navigation\", ", region);
        text += buffer;
        text +=
            "\"md5_checksum\": \"fedcba9876543210fedcba9876543210\", \"size\": 23456789, "
            "\"data_version\": \"2024.1\"}]}";
    }
    text += "\n}\n";
    return text;
}

// Answers every request with the response prepared last, on a thread of its own, as a service
// must (never inside request()).
class MemoryHttpService final : public HttpServiceInterface {
  public:
    ~MemoryHttpService() override {
        for (auto& thread : threads) {
            thread.join();
        }
    }

    void prepare(const std::string& body) {
        HttpResponseData data;
        data.code = 200;
        data.data = HttpBody(body.begin(), body.end());
        prepared = std::move(data);
    }

    void setMaxRequestsPerHost(std::uint8_t) override {}
    std::uint64_t request(HttpRequest&& request, HttpResponseCallback&& callback) override {
        HttpResponse response{std::move(request), std::move(prepared)};
        threads.emplace_back(
            [response = std::move(response), callback = std::move(callback)]() mutable {
                callback(std::move(response));
            });
        return nextHttpRequestId();
    }
    void cancelRequest(std::uint64_t, ResultCallback&& callback) override {
        threads.emplace_back([callback = std::move(callback)] { callback(false); });
    }
    bool supportsKeepCompression() override { return false; }
    std::uint64_t download(DownloadOptions&&, DownloadStatusCallback&&) override { return 0; }

  private:
    HttpResponseData prepared;
    std::vector<std::thread> threads;
};

double serviceSeconds(OfflineService& service, MemoryHttpService& http, const std::string& body) {
    http.prepare(body);
    std::promise<std::pair<Clock::time_point, std::size_t>> answered;
    const auto started = Clock::now();
    service.listAvailableRegions(
        [&](expected<std::vector<OfflineDataRegionMetadata>, OfflineDataError> result) {
            const auto finished = Clock::now();
            answered.set_value({finished, result ? result->size() : 0});
        });
    const auto [finished, regions] = answered.get_future().get();
    if (regions != regionCount) {
        std::fprintf(stderr, "the service listed %zu regions instead of %d\n", regions,
                     regionCount);
        std::exit(1);
    }
    return std::chrono::duration<double>(finished - started).count();
}

double anchorSeconds(const std::string& body) {
    rapidjson::Document document;
    const auto started = Clock::now();
    document.Parse(body.c_str());
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    if (document.HasParseError() || document.MemberCount() != regionCount) {
        std::fprintf(stderr, "RapidJSON did not read the catalogue\n");
        std::exit(1);
    }
    return seconds;
}

}  // namespace

int main() {
    const std::string body = catalogue();
    const double megabytes = static_cast<double>(body.size()) / 1e6;
    std::printf("catalogue of %d regions, %.1f MB\n", regionCount, megabytes);

    const fs::path directory =
        fs::temp_directory_path() / ("terrane_catalogue_bench_" + std::to_string(::getpid()));
    fs::create_directories(directory);
    const auto http = std::make_shared<MemoryHttpService>();
    HttpServiceFactory::setUserDefined(http);
    double ours = 1e9;
    double anchor = 1e9;
    {
        const auto service = OfflineService::getInstance(
            directory.string(),
            OfflineServiceOptions{"bench", "token", std::string("http://127.0.0.1:9")});
        for (int round = 0; round < rounds; ++round) {
            const double parsed = anchorSeconds(body);
            const double listed = serviceSeconds(*service, *http, body);
            std::printf("round %d: listAvailableRegions %.1f ms, RapidJSON parse %.1f ms\n", round,
                        listed * 1e3, parsed * 1e3);
            ours = std::min(ours, listed);
            anchor = std::min(anchor, parsed);
        }
    }
    HttpServiceFactory::setUserDefined(nullptr);
    std::error_code ignored;
    fs::remove_all(directory, ignored);

    const double ratio = ours / anchor;
    std::printf("catalogue: listAvailableRegions %.1f ms, RapidJSON %.1f ms, ratio %.2f\n",
                ours * 1e3, anchor * 1e3, ratio);
    using terrane::bench::format;
    terrane::bench::recordResult(
        {.work = "catalogue of 10,000 regions",
         .ours = format("%.0f ms", ours * 1e3) + format(" (%.0f MB from memory)", megabytes),
         .anchor = format("%.0f ms", anchor * 1e3),
         .ratio = ratio,
         .goal = "<= 1.5",
         .met = ratio <= 1.5});
    return 0;
}
