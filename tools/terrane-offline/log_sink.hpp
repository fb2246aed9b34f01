#pragma once

#include <string>
#include <terrane/log/log_writer_backend.hpp>

#include "redactor.hpp"

namespace terrane::tool {

// Where the library's own log goes: with --verbose, stderr with the token redacted; otherwise
// nowhere, since every outcome a user needs is reported by the commands themselves.
//
// Called on any library thread, concurrently; each message is one fprintf, which stdio locks.
class StderrLogSink final : public common::LogWriterBackend {
  public:
    StderrLogSink(Redactor redact, bool verbose) : redact_(std::move(redact)), verbose_(verbose) {}

    void writeLog(common::LoggingLevel level, const std::string& message,
                  const common::optional<std::string>& category) override;

  private:
    Redactor redact_;
    bool verbose_;
};

// Puts the sink in force for the whole process.
void installLogSink(const Redactor& redact, bool verbose);

}  // namespace terrane::tool
