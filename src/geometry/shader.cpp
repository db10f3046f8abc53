// Shader records and UID parsing.
#include "orbivane/geometry/shader.h"

#include <cctype>
#include <stdexcept>

#include "geometry/text_conversion.h"

namespace OrbivaneGeometry {

Shader::Shader(const std::string& uid, const std::map<std::string, std::string>& parameters)
    : parameters_(parameters) {
  const std::size_t first = uid.find_first_not_of(' ');
  const std::size_t last = uid.find_last_not_of(' ');
  const std::string trimmed = first == std::string::npos ? std::string() : uid.substr(first, last - first + 1);
  if (trimmed.size() != 8) throw std::invalid_argument("Invalid UID");
  uidHigh_ = static_cast<std::uint16_t>(parseHex16(trimmed.substr(0, 4)));
  uidLow_ = static_cast<std::uint16_t>(parseHex16(trimmed.substr(4, 4)));
  uid_ = trimmed;
}

const std::string* Shader::parameter(const std::string& name) const {
  const auto it = parameters_.find(name);
  return it == parameters_.end() ? nullptr : &it->second;
}

}  // namespace OrbivaneGeometry
