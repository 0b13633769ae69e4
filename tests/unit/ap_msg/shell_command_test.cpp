#include "ap_msg/firmware/shell_command.h"

#include "board/board.h"
#include "helpers/temp_files.h"

#include <gtest/gtest.h>

namespace {

std::string shell_command(std::string_view before, std::string_view name,
                          std::string_view after = {}) {
    return ShellCommand(before, name, after).line();
}

TEST(ShellCommand, LeavesOrdinaryNamesAsTheyAre) {
    for (const char *name : {"a", "/tmp/fw.bin", "../a-b_c+d=e@f%g,h:i", "-x", "0123456789",
                             "abcdefghijklmnopqrstuvwxyz/ABCDEFGHIJKLMNOPQRSTUVWXYZ"}) {
        EXPECT_EQ(shell_command("/bin/rm -f  ", name), std::string("/bin/rm -f  ").append(name));
    }
}

TEST(ShellCommand, KeepsWhatStandsBehindTheName) {
    EXPECT_EQ(shell_command("-b ", "fw.bin", " -r 0x00 "), "-b fw.bin -r 0x00 ");
    EXPECT_EQ(shell_command("", "fw.bin", " "), "fw.bin ");
}

TEST(ShellCommand, QuotesOtherNames) {
    EXPECT_EQ(shell_command("x ", "a b"), "x 'a b'");
    EXPECT_EQ(shell_command("x ", "a;b", " y"), "x 'a;b' y");
    EXPECT_EQ(shell_command("x ", ""), "x ''");
    EXPECT_EQ(shell_command("x ", "it's"), R"(x 'it'\''s')");
    EXPECT_EQ(shell_command("x ", "'"), R"(x ''\''')");
    EXPECT_EQ(shell_command("x ", "caf\xC3\xA9"), "x 'caf\xC3\xA9'");
}

TEST(ShellCommand, QuotesEveryCharacterThatIsNotOrdinary) {
    const std::string ordinary =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._/+-=@%,:";
    for (int c = 1; c < 256; c++) {
        const std::string name(1, static_cast<char>(c));
        const bool is_quoted = shell_command("", name) != name;
        EXPECT_EQ(is_quoted, ordinary.find(name) == std::string::npos) << c;
    }
}

// The shell itself is the judge: each name comes back as one word, byte for byte.
TEST(ShellCommand, ReachesTheProgramAsOneWord) {
    const test::TempDirectory directory;
    const std::string result = directory.path("result");
    for (const std::string name : {"a b",  "$(id)", "`id`",   "$HOME",  "a;touch b",
                                   "a\nb", "a\\",   "\"",     "'",      "''",
                                   "*",    "~",     "a'b\"c", "a && b", "#a",
                                   "a\tb", "!a",    "{a,b}",  "> a",    "\x01\x7F\x80\xFF"}) {
        const std::string line =
            shell_command("printf %s ", name, std::string(" > ").append(result));
        EXPECT_EQ(my_system(line.c_str()), 0) << line;
        const auto bytes = test::read_file(result);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), name);
    }
}

} // namespace
