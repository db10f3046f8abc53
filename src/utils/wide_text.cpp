// UTF-8 to and from wide strings (UTF-32 where wchar_t is 32 bits).
#include "orbivane/utils/wide_text.h"

#include <cstdint>

namespace Utils {

std::string toUtf8(const std::wstring& text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t wc : text) {
    auto c = static_cast<std::uint32_t>(wc);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::wstring fromUtf8(const std::string& text) {
  std::wstring out;
  out.reserve(text.size());
  std::size_t i = 0;
  const std::size_t n = text.size();
  while (i < n) {
    const auto b = static_cast<unsigned char>(text[i]);
    std::uint32_t c = 0;
    int extra = 0;
    if (b < 0x80) {
      c = b;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F, extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F, extra = 2;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07, extra = 3;
    } else {
      out += static_cast<wchar_t>(0xFFFD);
      ++i;
      continue;
    }
    if (i + static_cast<std::size_t>(extra) >= n) {  // sequence cut off at the end
      out += static_cast<wchar_t>(0xFFFD);
      break;
    }
    bool valid = true;
    for (int k = 1; k <= extra; ++k) {
      const auto cont = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
      if ((cont & 0xC0) != 0x80) {
        valid = false;
        break;
      }
      c = (c << 6) | (cont & 0x3F);
    }
    if (!valid) {
      out += static_cast<wchar_t>(0xFFFD);
      ++i;
      continue;
    }
    out += static_cast<wchar_t>(c);
    i += static_cast<std::size_t>(extra) + 1;
  }
  return out;
}

}  // namespace Utils
