#include "client_session.hpp"

#include <cstdio>
#include <terrane/reachability/reachability_factory.hpp>

#include "offline_session.hpp"

namespace terrane::tool {

using namespace std::chrono_literals;

namespace {

class LogPrinter final : public common::OfflineClientObserver {
  public:
    explicit LogPrinter(Redactor redact) : redact_(std::move(redact)) {}
    void onLogMessage(const std::string& message) override {
        std::fprintf(stderr, "[offline] %s\n", redact_(message).c_str());
    }

  private:
    Redactor redact_;
};

}  // namespace

std::string hostOf(const std::string& url) {
    const auto scheme = url.find("://");
    std::string rest = url.substr(scheme == std::string::npos ? 0 : scheme + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    if (const auto at = rest.rfind('@'); at != std::string::npos) {
        rest.erase(0, at + 1);
    }
    if (rest.starts_with("[")) {
        return rest.substr(1, rest.find(']') - 1);
    }
    return rest.substr(0, rest.find(':'));
}

ClientSession::ClientSession(const ToolContext& context, common::NetworkPolicy network)
    : context_(context),
      endpoint_(context.baseUrl.empty() ? std::string(common::defaultCatalogueEndpoint)
                                        : context.baseUrl),
      interruptListener_(context.interrupts, [this] { stop_.request_stop(); }) {
    common::OfflineServiceOptions options;
    options.username = context.user;
    options.accessToken = context.token;
    if (!context.baseUrl.empty()) {
        options.baseURL = context.baseUrl;
    }
    common::OfflineClientSettings settings;
    if (network != common::NetworkPolicy::AnyNetwork) {
        reachability_ = common::ReachabilityFactory::reachability(hostOf(endpoint_));
        settings.reachability = reachability_;
    }
    client_ = std::make_unique<common::OfflineClient>(context.storage, options, settings);
    if (reachability_) {
        reachability_->start();
    }
    if (context.verbose) {
        logPrinter_ = std::make_shared<LogPrinter>(context.redact);
        client_->addObserver(logPrinter_);
    }
}

ClientSession::~ClientSession() {
    if (reachability_) {
        reachability_->stop();
    }
    client_.reset();
}

Result<std::vector<common::OfflineDataRegionMetadata>> ClientSession::listRegions(
    std::chrono::milliseconds limit) {
    auto catalogue = client_->listRegions(limit, stop_.get_token());
    if (catalogue) {
        return std::move(*catalogue);
    }
    if (interrupted()) {
        return fail(Interrupted, "interrupted");
    }
    return common::unexpected(
        catalogueError(catalogue.error(), endpoint_, context_.user, context_.redact));
}

void ClientSession::wait(const common::PackOperation& operation,
                         const std::function<void()>& tick) const {
    while (!operation.wait_for(100ms)) {
        tick();
    }
    tick();
}

}  // namespace terrane::tool
