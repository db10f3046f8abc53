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
  // Invalid input (stray continuation bytes, cut-off sequences, overlong
  // forms, surrogates, code points above U+10FFFF) becomes U+FFFD, and
  // decoding goes on with the next byte.
  constexpr wchar_t kReplacement = static_cast<wchar_t>(0xFFFD);
  std::wstring out;
  out.reserve(text.size());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    const auto b = static_cast<unsigned char>(text[i]);
    if (b < 0x80) {
      out += static_cast<wchar_t>(b);
      ++i;
      continue;
    }
    int extra = 0;
    std::uint32_t c = 0;
    std::uint32_t smallest = 0;
    if ((b & 0xE0) == 0xC0) {
      extra = 1, c = b & 0x1Fu, smallest = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      extra = 2, c = b & 0x0Fu, smallest = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      extra = 3, c = b & 0x07u, smallest = 0x10000;
    } else {
      out += kReplacement;
      ++i;
      continue;
    }
    // Read as many continuation bytes as the lead byte announces; a sequence
    // cut short (by the end or another byte) is replaced as a whole.
    int read = 0;
    while (read < extra && i + 1 + static_cast<std::size_t>(read) < n) {
      const auto cont = static_cast<unsigned char>(text[i + 1 + static_cast<std::size_t>(read)]);
      if ((cont & 0xC0) != 0x80) break;
      c = (c << 6) | (cont & 0x3Fu);
      ++read;
    }
    if (read < extra) {
      out += kReplacement;
      i += 1 + static_cast<std::size_t>(read);
      continue;
    }
    const bool legal = c >= smallest && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
    out += legal ? static_cast<wchar_t>(c) : kReplacement;
    i += static_cast<std::size_t>(extra) + 1;
  }
  return out;
}

}  // namespace Utils
