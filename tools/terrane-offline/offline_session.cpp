#include "offline_session.hpp"

#include <cstdio>

#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataErrorCode;
using common::OfflineDataPackStatus;
using namespace std::chrono_literals;

namespace {

ToolError interruptedError() {
    return ToolError{Interrupted, "interrupted"};
}

}  // namespace

ToolError catalogueError(const common::OfflineDataError& error, const std::string& endpoint,
                         const std::string& user, const Redactor& redact) {
    const std::string where = redact(endpoint);
    const std::string detail =
        printable(redact(error.message.empty() ? "no details" : error.message));
    switch (error.code) {
        case OfflineDataErrorCode::Unauthorized:
            return ToolError{
                Unauthorized,
                "the catalogue at " + where + " refused access for user '" + user + "': " + detail};
        case OfflineDataErrorCode::Connection:
            return ToolError{Unreachable, "cannot reach the catalogue at " + where + ": " + detail};
        case OfflineDataErrorCode::NotFound:
            return ToolError{Failure, "the catalogue at " + where + " has nothing for user '" +
                                          user + "': " + detail};
        default:
            return ToolError{Failure,
                             "the catalogue at " + where + " gave an unusable answer: " + detail};
    }
}

OfflineSession::OfflineSession(const ToolContext& context, const std::string& baseUrl,
                               const std::string& user)
    : context_(context),
      endpoint_(baseUrl.empty() ? std::string(common::defaultCatalogueEndpoint) : baseUrl),
      user_(user),
      queue_(std::make_shared<EventQueue>()),
      observer_(std::make_shared<QueueingObserver>(queue_)),
      interruptListener_(context.interrupts, [queue = queue_] {
          queue->push(ServiceEvent::of(ServiceEvent::Kind::Interrupted));
      }) {
    common::OfflineServiceOptions options;
    options.username = user;
    options.accessToken = context.token;
    if (!baseUrl.empty()) {
        options.baseURL = baseUrl;
    }
    common::OfflineService::registerObserver(observer_);
    service_ = common::OfflineService::getInstance(context.storage, options);
}

OfflineSession::~OfflineSession() {
    common::OfflineService::unregisterObserver(observer_);
    // The last reference: the worker runs what is queued, then its thread is joined.
    service_.reset();
}

void OfflineSession::printLog(const std::string& message) const {
    if (context_.verbose) {
        std::fprintf(stderr, "[offline] %s\n", context_.redact(message).c_str());
    }
}

common::optional<ServiceEvent> OfflineSession::next(std::chrono::milliseconds timeout) {
    auto event = queue_->popFor(timeout);
    if (!event) {
        return event;
    }
    switch (event->kind) {
        case ServiceEvent::Kind::Pack:
            if (event->pack.status == OfflineDataPackStatus::Deleted) {
                packs_.erase(event->key());
            } else {
                packs_[event->key()] = KnownPack{event->region, event->pack};
            }
            break;
        case ServiceEvent::Kind::Log:
            printLog(event->message);
            break;
        default:
            break;
    }
    return event;
}

Result<void> OfflineSession::waitUntilInitialized() {
    while (true) {
        const auto event = next(1h);
        if (!event) {
            continue;
        }
        if (event->kind == ServiceEvent::Kind::Interrupted) {
            return common::unexpected(interruptedError());
        }
        if (event->kind == ServiceEvent::Kind::Initialized) {
            return {};
        }
    }
}

Result<bool> OfflineSession::waitUntilIdle(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) {
            return false;
        }
        const auto event = next(left);
        if (!event) {
            continue;
        }
        if (event->kind == ServiceEvent::Kind::Interrupted) {
            return common::unexpected(interruptedError());
        }
        if (event->kind == ServiceEvent::Kind::Idle) {
            return true;
        }
    }
}

Result<std::vector<common::OfflineDataRegionMetadata>> OfflineSession::listRegions(
    std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    service_->listAvailableRegions([queue = queue_](Catalogue answer) {
        ServiceEvent event = ServiceEvent::of(ServiceEvent::Kind::Catalogue);
        event.catalogue = std::make_shared<const Catalogue>(std::move(answer));
        queue->push(std::move(event));
    });
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) {
            return fail(Unreachable, "the catalogue at " + context_.redact(endpoint_) +
                                         " did not answer in time");
        }
        const auto event = next(left);
        if (!event) {
            continue;
        }
        if (event->kind == ServiceEvent::Kind::Interrupted) {
            return common::unexpected(interruptedError());
        }
        if (event->kind != ServiceEvent::Kind::Catalogue) {
            continue;
        }
        if (!*event->catalogue) {
            return common::unexpected(
                catalogueError(event->catalogue->error(), endpoint_, user_, context_.redact));
        }
        return **event->catalogue;
    }
}

}  // namespace terrane::tool
