// Where in a JSON text a parse stopped, as a JSON path ("/modules/0/geometry/
// matrix/3"): nlohmann's own errors give a byte position, or none at all
// for a number too large for a double. Used by the readers of user files so
// their messages name the place.
#pragma once

#include <string>

namespace Utils {

// The path of the value the parser was at when it stopped ("/" at the top).
std::string jsonPathWhereParsingStops(const std::string& text);

}  // namespace Utils
