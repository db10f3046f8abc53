// Strict number parsing with the standard conversions' messages: the whole
// text must be a number, otherwise std::invalid_argument("invalid stoX
// argument"); a value that does not fit gives std::out_of_range("stoX argument
// out of range").
#pragma once

#include <string>

namespace OrbivaneGeometry {

unsigned long parseHex16(const std::string& text);  // 1..4 hexadecimal digits
float parseFloat(const std::string& text);
// The text of a float as "%f" writes it (fixed, six decimals).
std::string formatFloat(float value);

}  // namespace OrbivaneGeometry
