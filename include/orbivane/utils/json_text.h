// Checks a user's JSON text before a reader takes its values: the text
// parses, every number fits a double, and no object gives a key twice (a
// JSON parser would silently keep the last value). The library's own readers
// (camera, simulated camera, recordings index) check this way; hosts use it
// for files they read themselves.
#pragma once

#include <string>

#include "orbivane/export.h"
#include "orbivane/utils/return_state.h"

namespace Utils {

// A failure reads "<what>: not valid JSON: <the parser's words>", "<what>:
// at <JSON path>: a number too large to be held (beyond about 1.8e308)" or
// "<what>: at <JSON path>: the key is given twice in its object"; `what`
// names the file ("shard file 'a.json'").
ORBIVANE_EXPORT ReturnState<bool, std::string> checkJsonText(const std::string& text, const std::string& what);

}  // namespace Utils
