#include "platform/wide_string.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::platform {
namespace {

struct Utf8Case {
  const char* name;
  std::string utf8;
  std::u16string utf16;
};

// Well-formed text: both directions give the other column exactly.
TEST(WideString, WellFormedTextRoundTrips) {
  const Utf8Case kCases[] = {
      {"empty", "", u""},
      {"ascii", "target 7", u"target 7"},
      {"embedded zero", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
      {"two bytes", "\xC3\xA9", u"\u00E9"},
      {"three bytes", "\xE2\x82\xAC", u"\u20AC"},
      {"surrogate pair", "\xF0\x9F\x98\x80", u"\U0001F600"},
      {"last of one byte", "\x7F", u"\u007F"},
      {"first of two bytes", "\xC2\x80", u"\u0080"},
      {"last of two bytes", "\xDF\xBF", u"\u07FF"},
      {"first of three bytes", "\xE0\xA0\x80", u"\u0800"},
      {"last before surrogates", "\xED\x9F\xBF", u"\uD7FF"},
      {"first after surrogates", "\xEE\x80\x80", u"\uE000"},
      {"last of three bytes", "\xEF\xBF\xBF", u"\uFFFF"},
      {"first of four bytes", "\xF0\x90\x80\x80", u"\U00010000"},
      {"last scalar value", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
  };
  for (const Utf8Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Utf8ToUtf16(c.utf8), c.utf16);
    EXPECT_EQ(Utf16ToUtf8(c.utf16), c.utf8);
  }
}

// Each maximal ill-formed subsequence becomes one U+FFFD; what follows it is decoded normally.
TEST(WideString, IllFormedUtf8BecomesReplacementCharacters) {
  const Utf8Case kCases[] = {
      {"lone continuation", "\x80", u"\uFFFD"},
      {"never a lead byte", std::string("a\xFF") + 'b', u"a\uFFFDb"},
      {"overlong two bytes", "\xC0\xAF", u"\uFFFD\uFFFD"},
      {"overlong three bytes", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
      {"past U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"lead byte past F4", "\xF5\x80", u"\uFFFD\uFFFD"},
      {"truncated at end", "ok\xE2\x82", u"ok\uFFFD"},
      {"truncated before ascii", "\xE2\x82z", u"\uFFFDz"},
      {"truncated four bytes", std::string("\xF0\x9F\x98") + 'a', u"\uFFFDa"},
      {"lead byte then lead byte", "\xC3\xC3\xA9", u"\uFFFD\u00E9"},
  };
  for (const Utf8Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Utf8ToUtf16(c.utf8), c.utf16);
  }
}

TEST(WideString, UnpairedSurrogatesBecomeReplacementCharacters) {
  const Utf8Case kCases[] = {
      {"lone high", std::string("\xEF\xBF\xBD") + 'a', std::u16string{0xD800, u'a'}},
      {"lone low", "a\xEF\xBF\xBD", std::u16string{u'a', 0xDC00}},
      {"high at end", "\xEF\xBF\xBD", std::u16string{0xDBFF}},
      {"low then high", "\xEF\xBF\xBD\xEF\xBF\xBD", std::u16string{0xDC00, 0xD800}},
      {"high, high, low", "\xEF\xBF\xBD\xF0\x90\x80\x80", std::u16string{0xD800, 0xD800, 0xDC00}},
  };
  for (const Utf8Case& c : kCases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Utf16ToUtf8(c.utf16), c.utf8);
  }
}

}  // namespace
}  // namespace qv::platform
