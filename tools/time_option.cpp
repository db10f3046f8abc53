// Time options of the command line (--from, --to).
#include <exception>

#include "command_line.h"
#include "orbivane/recordings/recordings_index.h"

namespace Tool {

std::int64_t parseTimeOption(const std::string& text, const char* option) {
  auto iso = Quarn::parseTimestamp(text);
  if (iso) return iso.value();
  try {
    std::size_t used = 0;
    const long long ms = std::stoll(text, &used);
    if (used == text.size() && ms >= 0) return ms;
  } catch (const std::exception&) {
  }
  throw CommandError(std::string(option) + " expects ISO-8601 UTC time (2026-11-22T10:00:00Z) or milliseconds " +
                     "since the epoch, got '" + text + "'");
}

}  // namespace Tool
