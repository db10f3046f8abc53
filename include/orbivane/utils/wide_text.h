// Module names are wide strings; files, logs and messages are UTF-8.
#pragma once

#include <string>

#include "orbivane/export.h"

namespace Utils {

ORBIVANE_EXPORT std::string toUtf8(const std::wstring& text);
// Invalid UTF-8 sequences become U+FFFD.
ORBIVANE_EXPORT std::wstring fromUtf8(const std::string& text);

}  // namespace Utils
