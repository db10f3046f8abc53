// Capturing a named logger; see captured_log.h.
#include "support/captured_log.h"

#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

namespace Testing {

CapturedLog::CapturedLog(const std::string& name) : name_(name) {
  spdlog::drop(name_);
  logger_ = std::make_shared<spdlog::logger>(name_, std::make_shared<spdlog::sinks::ostream_sink_mt>(text_));
  logger_->set_level(spdlog::level::trace);
  spdlog::register_logger(logger_);
}

CapturedLog::~CapturedLog() { spdlog::drop(name_); }

}  // namespace Testing
