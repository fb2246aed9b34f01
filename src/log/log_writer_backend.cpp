#include "terrane/log/log_writer_backend.hpp"

namespace terrane::common {

LogWriterBackend::~LogWriterBackend() = default;

}  // namespace terrane::common
