// Fingerprints of bytes; see digest.h.
#include "digest.h"

#include <cstdio>
#include <fstream>

namespace Tool {

Digest& Digest::add(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    hash_ ^= bytes[i];
    hash_ *= 1099511628211ull;
  }
  return *this;
}

bool Digest::addFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  char buffer[1 << 16];
  while (in) {
    in.read(buffer, sizeof buffer);
    add(buffer, std::size_t(in.gcount()));
  }
  return !in.bad();
}

std::string Digest::hex() const {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash_));
  return text;
}

}  // namespace Tool
