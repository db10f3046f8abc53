// One step of a module's shader chain: a UID and named parameters held as
// text. Parameter names carry their type in a prefix: "i_" integer, "f_"
// floating point.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "orbivane/export.h"

namespace OrbivaneGeometry {

class ORBIVANE_EXPORT Shader {
 public:
  // Parses the UID: blanks (spaces only) around it are removed, the rest must
  // be 8 hexadecimal characters, read as two 16-bit halves. Throws
  // std::invalid_argument("Invalid UID") for another length; the conversion's
  // own exceptions ("invalid stoul argument", "stoul argument out of range")
  // pass through.
  Shader(const std::string& uid, const std::map<std::string, std::string>& parameters);

  const std::string& uid() const { return uid_; }
  std::uint16_t uidHigh() const { return uidHigh_; }
  std::uint16_t uidLow() const { return uidLow_; }

  const std::map<std::string, std::string>& parameters() const { return parameters_; }
  std::map<std::string, std::string>& parameters() { return parameters_; }
  // The parameter's text, or nothing when the shader has no such parameter.
  const std::string* parameter(const std::string& name) const;
  void setParameter(const std::string& name, const std::string& value) { parameters_[name] = value; }

  friend bool operator==(const Shader& a, const Shader& b) {
    return a.uid_ == b.uid_ && a.parameters_ == b.parameters_;
  }

 private:
  std::string uid_;  // the 8 characters, blanks removed
  std::uint16_t uidHigh_ = 0;
  std::uint16_t uidLow_ = 0;
  std::map<std::string, std::string> parameters_;
};

}  // namespace OrbivaneGeometry
