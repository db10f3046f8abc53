// A short fingerprint of bytes (64-bit FNV-1a, as 16 hex digits): enough to
// tell that a file or picture is not the one an earlier run saw, which is
// all the host asks of it; it is no protection against a forger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tool {

class Digest {
 public:
  Digest& add(const void* data, std::size_t size);
  Digest& add(const std::string& text) { return add(text.data(), text.size()); }
  // Adds a whole file's bytes; false when it cannot be read.
  bool addFile(const std::string& path);
  std::string hex() const;

 private:
  std::uint64_t hash_ = 1469598103934665603ull;
};

}  // namespace Tool
