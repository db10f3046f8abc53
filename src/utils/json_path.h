// Where in a JSON text a parse stopped, as a JSON path ("/modules/0/geometry/
// matrix/3"): nlohmann's own errors give a byte position, or none at all
// for a number too large for a double. Used by the readers of user files so
// their messages name the place.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "orbivane/utils/return_state.h"

namespace Utils {

// The path of the value the parser was at when it stopped ("/" at the top).
std::string jsonPathWhereParsingStops(const std::string& text);

// Parses a user's JSON file. A failure reads "<what>: not valid JSON: <the
// parser's words>", "<what>: at <JSON path>: a number too large to be held
// (beyond about 1.8e308)" or "<what>: at <JSON path>: the key is given twice
// in its object"; `what` names the file ("camera file 'cam.json'").
ReturnState<nlohmann::json, std::string> parseJsonText(const std::string& text, const std::string& what);

}  // namespace Utils
