#include "log/log_configuration_impl.hpp"

#include <mutex>

#include "terrane/log/default_log_backend.hpp"

namespace terrane::common {

LogConfigurationImpl::LogConfigurationImpl()
    : sink_(std::make_shared<DefaultLogBackend>()), filterLevel_(LoggingLevel::Debug) {
}

std::shared_ptr<LogConfiguration> LogConfigurationImpl::getInstance() {
    // Function-local statics: whoever logs first, even from another static initialiser, creates
    // them, and they are destroyed only after every object whose construction logged.
    static std::mutex mutex;
    static std::shared_ptr<LogConfiguration> instance;

    const std::lock_guard<std::mutex> lock(mutex);
    if (!instance) {
        instance = std::make_shared<LogConfiguration>();
    }
    return instance;
}

void LogConfigurationImpl::registerLogWriterBackend(
    const std::shared_ptr<LogWriterBackend>& backend) {
    if (!backend) {
        return;
    }
    std::shared_ptr<LogWriterBackend> previous = backend;
    {
        const std::lock_guard<std::mutex> lock(sinkMutex_);
        sink_.swap(previous);
    }
    // The old sink may be destroyed here, outside the lock, so that a sink that logs from its
    // destructor does not deadlock.
}

std::shared_ptr<LogWriterBackend> LogConfigurationImpl::getLogWriterBackend() const {
    const std::lock_guard<std::mutex> lock(sinkMutex_);
    return sink_;
}

void LogConfigurationImpl::setFilterLevel(LoggingLevel level) {
    filterLevel_.exchange(level);
}

LoggingLevel LogConfigurationImpl::getFilterLevel() const {
    return filterLevel_.load();
}

}  // namespace terrane::common
