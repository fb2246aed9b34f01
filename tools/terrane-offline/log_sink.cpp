#include "log_sink.hpp"

#include <cstdio>
#include <memory>
#include <terrane/log/log_configuration.hpp>

namespace terrane::tool {

namespace {

const char* levelName(common::LoggingLevel level) {
    switch (level) {
        case common::LoggingLevel::Debug:
            return "debug";
        case common::LoggingLevel::Info:
            return "info";
        case common::LoggingLevel::Warning:
            return "warning";
        case common::LoggingLevel::Error:
            return "error";
    }
    return "log";
}

}  // namespace

void StderrLogSink::writeLog(common::LoggingLevel level, const std::string& message,
                             const common::optional<std::string>& category) {
    if (!verbose_) {
        return;
    }
    std::fprintf(stderr, "[%s%s%s] %s\n", category ? category->c_str() : "", category ? " " : "",
                 levelName(level), redact_(message).c_str());
}

void installLogSink(const Redactor& redact, bool verbose) {
    const auto configuration = common::LogConfiguration::getInstance();
    configuration->registerLogWriterBackend(std::make_shared<StderrLogSink>(redact, verbose));
    configuration->setFilterLevel(verbose ? common::LoggingLevel::Debug
                                          : common::LoggingLevel::Error);
}

}  // namespace terrane::tool
