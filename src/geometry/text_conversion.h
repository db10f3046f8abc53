// The standard conversions, as shader texts are read: std::stoul in base 16
// for UID halves and std::stof for floating-point parameters, with their own
// semantics (leading blanks skipped, a "0x" prefix and a sign accepted,
// trailing characters ignored); their failures are raised as
// std::invalid_argument("invalid stoX argument") and
// std::out_of_range("stoX argument out of range") (std::stof raises the
// latter for values that underflow too, such as 1e-40).
#pragma once

#include <string>

namespace OrbivaneGeometry {

unsigned long parseHex16(const std::string& text);
float parseFloat(const std::string& text);
// The text of a float as "%f" writes it (fixed, six decimals).
std::string formatFloat(float value);

}  // namespace OrbivaneGeometry
