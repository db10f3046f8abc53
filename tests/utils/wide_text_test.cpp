// Module names travel as wide strings and are stored as UTF-8.
#include "orbivane/utils/wide_text.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

namespace {

const wchar_t kReplacement = static_cast<wchar_t>(0xFFFD);

bool onlyReplacements(const std::wstring& text) {
  if (text.empty()) return false;
  for (wchar_t c : text) {
    if (c != kReplacement) return false;
  }
  return true;
}

}  // namespace

TEST(WideText, NonAsciiNamesRoundTrip) {
  const std::wstring name = L"Modul S\u00FCd-Ost \u2713";
  const std::string utf8 = Utils::toUtf8(name);
  EXPECT_EQ(utf8, "Modul S\xC3\xBC" "d-Ost \xE2\x9C\x93");
  EXPECT_EQ(Utils::fromUtf8(utf8), name);

  const std::wstring wide = L"\u5317 \U0001F600";  // three and four byte sequences
  EXPECT_EQ(Utils::toUtf8(wide), "\xE5\x8C\x97 \xF0\x9F\x98\x80");
  EXPECT_EQ(Utils::fromUtf8(Utils::toUtf8(wide)), wide);
  EXPECT_EQ(Utils::toUtf8(L""), "");
  EXPECT_EQ(Utils::fromUtf8(""), L"");
}

TEST(WideText, EveryEncodingLengthBoundaryRoundTrips) {
  const std::uint32_t edges[] = {0x1,    0x7F,    0x80,    0x7FF,   0x800,    0xD7FF,
                                 0xE000, 0xFFFD,  0xFFFF,  0x10000, 0x10FFFF};
  const std::size_t lengths[] = {1, 1, 2, 2, 3, 3, 3, 3, 3, 4, 4};
  for (std::size_t k = 0; k < sizeof edges / sizeof edges[0]; ++k) {
    const std::wstring one(1, static_cast<wchar_t>(edges[k]));
    const std::string utf8 = Utils::toUtf8(one);
    EXPECT_EQ(utf8.size(), lengths[k]) << std::hex << edges[k];
    EXPECT_EQ(Utils::fromUtf8(utf8), one) << std::hex << edges[k];
  }
  // Many random names of mixed lengths.
  cv::RNG rng(99);
  for (int trial = 0; trial < 200; ++trial) {
    std::wstring name;
    for (int i = 0; i < 12; ++i) {
      std::uint32_t c = static_cast<std::uint32_t>(rng.uniform(1, 0x110000));
      if (c >= 0xD800 && c <= 0xDFFF) c -= 0x800;
      name += static_cast<wchar_t>(c);
    }
    ASSERT_EQ(Utils::fromUtf8(Utils::toUtf8(name)), name);
  }
}

TEST(WideText, CodePointsWithoutAnEncodingBecomeTheReplacementCharacter) {
  EXPECT_EQ(Utils::toUtf8(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
  EXPECT_EQ(Utils::toUtf8(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
  EXPECT_EQ(Utils::toUtf8(std::wstring(L"a") + static_cast<wchar_t>(0xDFFF) + L"b"), "a\xEF\xBF\xBD" "b");
}

TEST(WideText, InvalidBytesBecomeTheReplacementCharacter) {
  EXPECT_EQ(Utils::fromUtf8("A\xFF" "B"), std::wstring(L"A") + kReplacement + L"B");
  EXPECT_EQ(Utils::fromUtf8("\x80"), std::wstring(1, kReplacement));  // lone continuation byte
  // A lead byte followed by something that is not a continuation byte.
  const std::wstring broken = Utils::fromUtf8("\xC3(x");
  ASSERT_GE(broken.size(), 3u);
  EXPECT_EQ(broken.front(), kReplacement);
  EXPECT_EQ(broken.substr(broken.size() - 2), L"(x");
  // Arbitrary bytes never crash and never give more characters than bytes.
  cv::RNG rng(3);
  for (int trial = 0; trial < 500; ++trial) {
    std::string bytes;
    for (int i = 0; i < 16; ++i) bytes += static_cast<char>(rng.uniform(0, 256));
    const std::wstring text = Utils::fromUtf8(bytes);
    EXPECT_LE(text.size(), bytes.size());
  }
}

TEST(WideText, SequencesCutOffAtTheEndBecomeOneReplacement) {
  EXPECT_EQ(Utils::fromUtf8("abc\xE2\x9C"), std::wstring(L"abc") + kReplacement);
  EXPECT_EQ(Utils::fromUtf8("\xF0\x9F\x98"), std::wstring(1, kReplacement));
  EXPECT_EQ(Utils::fromUtf8("\xC3"), std::wstring(1, kReplacement));
}

TEST(WideText, CutOffSequenceKeepsTheCharactersAfterIt) {
  // The lead byte announces more bytes than are left; the ASCII letters that
  // follow are still text.
  const std::wstring text = Utils::fromUtf8("ab\xE2" "c");
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), L'c') << "got " << text.size() << " characters";
  EXPECT_EQ(text.substr(0, 3), std::wstring(L"ab") + kReplacement);
  EXPECT_EQ(Utils::fromUtf8("x\xF0" "yz").back(), L'z');
}

TEST(WideText, OverlongSurrogateAndOutOfRangeSequencesAreInvalid) {
  // "\xC0\xAF" is an overlong '/', the classic path-traversal trick.
  EXPECT_TRUE(onlyReplacements(Utils::fromUtf8("\xC0\xAF")));
  EXPECT_TRUE(onlyReplacements(Utils::fromUtf8("\xE0\x80\xAF")));
  // UTF-16 surrogates are not characters.
  EXPECT_TRUE(onlyReplacements(Utils::fromUtf8("\xED\xA0\x80")));
  // Beyond U+10FFFF.
  EXPECT_TRUE(onlyReplacements(Utils::fromUtf8("\xF4\x90\x80\x80")));
}
