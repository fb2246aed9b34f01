#include "terrane/log/log_configuration.hpp"

#include "log/log_configuration_impl.hpp"

namespace terrane::common {

LogConfiguration::LogConfiguration() : impl_(std::make_unique<LogConfigurationImpl>()) {
}

LogConfiguration::~LogConfiguration() = default;

std::shared_ptr<LogConfiguration> LogConfiguration::getInstance() {
    return LogConfigurationImpl::getInstance();
}

void LogConfiguration::registerLogWriterBackend(const std::shared_ptr<LogWriterBackend>& backend) {
    impl_->registerLogWriterBackend(backend);
}

std::shared_ptr<LogWriterBackend> LogConfiguration::getLogWriterBackend() const {
    return impl_->getLogWriterBackend();
}

void LogConfiguration::setFilterLevel(LoggingLevel level) {
    impl_->setFilterLevel(level);
}

LoggingLevel LogConfiguration::getFilterLevel() const {
    return impl_->getFilterLevel();
}

}  // namespace terrane::common
