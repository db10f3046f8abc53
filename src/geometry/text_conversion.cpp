#include "geometry/text_conversion.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace OrbivaneGeometry {

unsigned long parseHex16(const std::string& text) {
  if (text.empty() || text.size() > 4) throw std::invalid_argument("invalid stoul argument");
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) throw std::invalid_argument("invalid stoul argument");
  }
  return std::stoul(text, nullptr, 16);
}

float parseFloat(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const float value = std::strtof(begin, &end);
  if (end == begin) throw std::invalid_argument("invalid stof argument");
  while (*end != '\0' && std::isspace(static_cast<unsigned char>(*end))) ++end;
  if (*end != '\0') throw std::invalid_argument("invalid stof argument");
  if (errno == ERANGE && (std::isinf(value) || value == 0.0f)) throw std::out_of_range("stof argument out of range");
  return value;
}

std::string formatFloat(float value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%f", static_cast<double>(value));
  return buffer;
}

}  // namespace OrbivaneGeometry
