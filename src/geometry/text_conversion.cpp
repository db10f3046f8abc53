// Text conversions of shader values; see text_conversion.h.
#include "geometry/text_conversion.h"

#include <cstdio>
#include <stdexcept>
#include <string>

namespace OrbivaneGeometry {

namespace {

// Runs a standard conversion and raises its failures with the texts the
// standard library of the host platform gives them ("invalid stoX argument",
// "stoX argument out of range"); the GNU library calls both just "stoX".
template <typename Convert>
auto converted(const char* name, Convert convert) {
  try {
    return convert();
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument(std::string("invalid ") + name + " argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range(std::string(name) + " argument out of range");
  }
}

}  // namespace

unsigned long parseHex16(const std::string& text) {
  return converted("stoul", [&text] { return std::stoul(text, nullptr, 16); });
}

float parseFloat(const std::string& text) {
  return converted("stof", [&text] { return std::stof(text); });
}

std::string formatFloat(float value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%f", static_cast<double>(value));
  return buffer;
}

}  // namespace OrbivaneGeometry
