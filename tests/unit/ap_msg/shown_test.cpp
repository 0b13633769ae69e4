#include "ap_msg/shown.h"

#include "stand_ins/fake_heap.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

std::string shown(std::string_view text) {
    return Shown(text).text();
}

TEST(Shown, LeavesTextsAsTheyAre) {
    for (const std::string &text :
         {""s, "fw.bin"s, "a b ~ ! \\ ' \" %s %n"s, "caf\xC3\xA9"s, "\xC2\xA0\xDF\xBF"s,
          "\xC3\x80\xE1\x80\x80\xF1\x80\x80\x80"s, // the least of their leads
          "\xE0\xA0\x80\xE5\x9B\xBE\xEF\xBF\xBD"s, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"s}) {
        EXPECT_EQ(shown(text), text);
    }
}

TEST(Shown, WritesEveryControlCharacterAsItsNumber) {
    for (int c = 0; c < 0x100; c++) {
        char number[8];
        (void)snprintf(number, sizeof number, "\\x%02x", static_cast<unsigned>(c));
        const bool is_plain = c >= 0x20 && c < 0x7F;
        const std::string text(1, static_cast<char>(c));
        EXPECT_EQ(shown(text), is_plain ? text : number);
        EXPECT_EQ(shown("a" + text + "b"), "a" + (is_plain ? text : number) + "b");
    }
    EXPECT_EQ(shown("a\nb\x1B[2J\x7F\r"), R"(a\x0ab\x1b[2J\x7f\x0d)");
    EXPECT_EQ(shown("\xC2\x80\xC2\x9B\xC2\x9F"), R"(\xc2\x80\xc2\x9b\xc2\x9f)");
}

// A terminal that takes them for characters may take them for the control characters of old.
TEST(Shown, WritesWhatIsNoCharacterAsItsNumbers) {
    const struct {
        std::string text;
        const char *expected;
    } rows[] = {
        {"\xC3"s, R"(\xc3)"},                         // cut short
        {"\xC3x"s, R"(\xc3x)"},                       //
        {"\xE5\x9Bx"s, R"(\xe5\x9bx)"},               //
        {"\xF0\x90\x80"s, R"(\xf0\x90\x80)"},         //
        {"\xE5\xC3\xA9"s, "\\xe5\xC3\xA9"},           // begun anew
        {"\xC0\x9B\xC1\xBF"s, R"(\xc0\x9b\xc1\xbf)"}, // longer than need be
        {"\xE0\x82\x9B"s, R"(\xe0\x82\x9b)"},         //
        {"\xF0\x80\x82\x9B"s, R"(\xf0\x80\x82\x9b)"}, //
        {"\xF5\x80\x80\x80"s, R"(\xf5\x80\x80\x80)"}, // beyond the last
        {"\xFF\xFE"s, R"(\xff\xfe)"},                 //
    };
    for (const auto &row : rows) {
        EXPECT_EQ(shown(row.text), row.expected);
    }
}

TEST(Shown, SaysThatThereIsNoMemoryAndKeepsErrno) {
    const HeapLimit limit(400);
    const std::string text(100, 'x');
    errno = EACCES;
    const Shown cannot(text);
    EXPECT_EQ(errno, EACCES);
    EXPECT_STREQ(cannot.text(), "(no memory to show it)");
    EXPECT_EQ(shown(text.substr(1)), text.substr(1));
}

} // namespace
