#include "zimbrel/src/core/common/rpc/printable.h"

#include <string>

#include "gtest/gtest.h"

namespace orvane {
namespace {

TEST(PrintableTest, LeavesTextAsItIs) {
  for (const std::string text : {"", "no browser \"7\", said C:\\it's",
                                 "Gr\u00fc\u00dfe, \u20ac 7, \U0001f600"})
    EXPECT_EQ(Printable(text), text);
}

TEST(PrintableTest, EscapesControlCharacters) {
  EXPECT_EQ(Printable(std::string("a\nb\r\tc\0d\x7f", 9)),
            "a\\nb\\r\\tc\\000d\\177");
}

TEST(PrintableTest, EscapesWhatBeginsATerminalsCommands) {
  EXPECT_EQ(Printable("\x1b[2J"), "\\033[2J");
  EXPECT_EQ(Printable("\u009b2J"), "\\302\\2332J");
  EXPECT_EQ(Printable("\x9b\x32J"), "\\2332J");
}

TEST(PrintableTest, EscapesWhatTurnsTextAround) {
  EXPECT_EQ(
      Printable("a\u202eb\u2066c\u200fd\u2028e"),
      "a\\342\\200\\256b\\342\\201\\246c\\342\\200\\217d\\342\\200\\250e");
}

TEST(PrintableTest, EscapesBytesThatAreNotUtf8) {
  EXPECT_EQ(Printable("a\xff"), "a\\377");
  EXPECT_EQ(Printable("\xc3"), "\\303") << "cut";
  EXPECT_EQ(Printable("\xc3("), "\\303(") << "not followed by its second byte";
  EXPECT_EQ(Printable("\xc0\xaf"), "\\300\\257") << "longer than it needs";
  EXPECT_EQ(Printable("\xed\xa0\x80"), "\\355\\240\\200") << "half of a pair";
  EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\364\\220\\200\\200")
      << "beyond the last character";
}

TEST(PrintableTest, CutsLongTextBetweenCharacters) {
  EXPECT_EQ(Printable("12345", 5), "12345");
  EXPECT_EQ(Printable("123456", 5), "12345...");
  EXPECT_EQ(Printable("1234\u00fc", 5), "1234...");
  EXPECT_EQ(Printable("1234\n6", 5), "1234\\n...");
}

TEST(PrintableTest, ASecondTimeChangesNothing) {
  const std::string once = Printable("a\n\x1b\\\xff");
  EXPECT_EQ(Printable(once), once);
}

}  // namespace
}  // namespace orvane
