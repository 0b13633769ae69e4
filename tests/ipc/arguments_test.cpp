// arguments_test.cpp - what the command line means, and what each wrong one is told.
#include "arguments.h"

#include "commands.h"

#include <gtest/gtest.h>

#include <climits>
#include <unistd.h>

namespace {

using ipc::Arguments;
using Words = std::vector<const char *>;

struct Wrong {
    Words words;
    std::string message;
};

const std::string kRead = "read ADDR LEN [--output FILE]";
const std::string kWrite = "write ADDR BYTE... | write ADDR --input FILE";
const std::string kPut = "put-picture ADDR WIDTH HEIGHT FILE";

const Wrong kWrong[] = {
    {{}, "no command: read, write, write-ack, put-picture, get-picture, update or hello"},
    {{"reed", "0", "1"}, "unknown command 'reed'"},
    {{""}, "unknown command ''"},
    {{"read"}, "read: ADDR is missing: " + kRead},
    {{"read", "0"}, "read: LEN is missing: " + kRead},
    {{"read", "0", "1", "2"}, "read: '2' is one argument too many: " + kRead},
    {{"read", "x", "1"}, "read: ADDR 'x': not 0 to ffffffff, hexadecimal"},
    {{"read", "", "1"}, "read: ADDR '': not 0 to ffffffff, hexadecimal"},
    {{"read", "0x", "1"}, "read: ADDR '0x': not 0 to ffffffff, hexadecimal"},
    {{"read", "+1", "1"}, "read: ADDR '+1': not 0 to ffffffff, hexadecimal"},
    {{"read", " 1", "1"}, "read: ADDR ' 1': not 0 to ffffffff, hexadecimal"},
    {{"read", "100000000", "1"}, "read: ADDR '100000000': not 0 to ffffffff, hexadecimal"},
    {{"read", "0", "0"}, "read: LEN '0': not 1 to 16777216, decimal or behind 0x hexadecimal"},
    {{"read", "0", "16777217"},
     "read: LEN '16777217': not 1 to 16777216, decimal or behind 0x hexadecimal"},
    {{"read", "0", "1f"}, "read: LEN '1f': not 1 to 16777216, decimal or behind 0x hexadecimal"},
    {{"read", "fffffffe", "3"},
     "read: 3 bytes from 0xfffffffe on end behind the last address 0xffffffff"},
    {{"write", "ffffffff", "1", "2"},
     "write: 2 bytes from 0xffffffff on end behind the last address 0xffffffff"},
    {{"write"}, "write: ADDR is missing: " + kWrite},
    {{"write", "0"}, "write: nothing to write: give BYTE... or --input FILE"},
    {{"write-ack", "0"}, "write-ack: nothing to write: give BYTE... or --input FILE"},
    {{"write", "0", "1", "--input", "f"}, "write: BYTE and --input FILE exclude each other"},
    {{"write", "0", "100"}, "write: BYTE '100': not 0 to ff, hexadecimal"},
    {{"write", "0", "1", "-1"}, "unknown option '-1'"},
    {{"write", "0", "1", "--", "-1"}, "write: BYTE '-1': not 0 to ff, hexadecimal"},
    {{"read", "0", "1", "--input", "f"}, "--input belongs to write and write-ack, not to read"},
    {{"write", "0", "1", "--output", "f"}, "--output belongs to read, not to write"},
    {{"put-picture", "0", "1", "1"}, "put-picture: FILE is missing: " + kPut},
    {{"put-picture", "0", "0", "1", "f"}, "put-picture: WIDTH '0': not 1 to 65535"},
    {{"get-picture", "0", "1", "65536", "f"}, "get-picture: HEIGHT '65536': not 1 to 65535"},
    {{"get-picture", "0", "1", "1", ""}, "get-picture: FILE '': not a file name"},
    {{"get-picture", "0", "23817", "45083", "/f"},
     "get-picture: 23817 x 45083 pixels are more than a BMP file can hold"},
    {{"get-picture", "0", "65535", "65535", "/f"},
     "get-picture: 65535 x 65535 pixels are more than a BMP file can hold"},
    {{"update", "100000000", "f"}, "update: KIND '100000000': not 0 to ffffffff, hexadecimal"},
    {{"update", "16"}, "update: FILE is missing: update KIND FILE"},
    {{"hello", "a", "b"}, "hello: 'b' is one argument too many: hello [TEXT]"},
    {{"--slot", "100", "hello"}, "--slot '100': not 0 to ff, hexadecimal"},
    {{"--model", "10000", "hello"}, "--model '10000': not 0 to ffff, hexadecimal"},
    {{"--id", "", "hello"}, "--id '': not 0 to ff, hexadecimal"},
    {{"--id", "100", "hello"}, "--id '100': not 0 to ff, hexadecimal"},
    {{"--timeout", "0", "hello"}, "--timeout '0': not 1 to 86400000 ms"},
    {{"--timeout", "86400001", "hello"}, "--timeout '86400001': not 1 to 86400000 ms"},
    {{"--module", "0", "hello"}, "--module '0': not 1 to ff, hexadecimal, without 3a, 3b and 3c"},
    {{"--module", "3a", "hello"}, "--module '3a': not 1 to ff, hexadecimal, without 3a, 3b and 3c"},
    {{"--module", "3b", "hello"}, "--module '3b': not 1 to ff, hexadecimal, without 3a, 3b and 3c"},
    {{"--module", "3C", "hello"}, "--module '3C': not 1 to ff, hexadecimal, without 3a, 3b and 3c"},
    {{"--input=", "write", "0"}, "--input '': not a file name"},
    {{"--output=", "read", "0", "1"}, "--output '': not a file name"},
    {{"hello", "--slot"}, "--slot needs a value: S"},
    {{"--json=1", "hello"}, "--json takes no value"},
    {{"--jason", "hello"}, "unknown option '--jason'"},
    {{"--slots=1", "hello"}, "unknown option '--slots'"},
    {{"-h"}, "unknown option '-h'"},
};

TEST(Arguments, AreToldWhatIsWrong) {
    for (const Wrong &wrong : kWrong) {
        Arguments arguments;
        EXPECT_EQ(ipc::parse_arguments(wrong.words, arguments), wrong.message);
    }
}

TEST(Arguments, StandBeforeAndBehindTheCommand) {
    for (const Words &words : {Words{"--slot", "a", "--json", "read", "7040", "0x10"},
                               Words{"read", "--slot=a", "0x7040", "--json", "16"},
                               Words{"--json", "read", "7040", "16", "--slot", "0xA"},
                               Words{"--json", "read", "0X7040", "0X10", "--slot", "0XA"}}) {
        Arguments arguments;
        ASSERT_EQ(ipc::parse_arguments(words, arguments), "");
        EXPECT_STREQ(arguments.command->word, "read");
        EXPECT_EQ(arguments.addr, 0x7040U);
        EXPECT_EQ(arguments.len, 16U);
        EXPECT_EQ(arguments.slot, 0xA);
        EXPECT_TRUE(arguments.json);
    }
}

TEST(Arguments, HaveAValueBehindTheFirstEqualsSign) {
    Arguments arguments;
    ASSERT_EQ(ipc::parse_arguments(Words{"read", "0", "1", "--output=a=b"}, arguments), "");
    EXPECT_EQ(arguments.output, "a=b");
}

TEST(Arguments, HaveDefaults) {
    Arguments arguments;
    ASSERT_EQ(ipc::parse_arguments(Words{"hello"}, arguments), "");
    EXPECT_EQ(arguments.slot, 1);
    EXPECT_EQ(arguments.model, 0);
    EXPECT_EQ(arguments.target_id, 0xFE);
    EXPECT_EQ(arguments.module, 0);
    EXPECT_FALSE(arguments.json || arguments.dry_run);
}

TEST(Arguments, OfOneDashOrNoCharacterAreNoOptions) {
    for (const char *text : {"-", ""}) {
        Arguments arguments;
        ASSERT_EQ(ipc::parse_arguments(Words{"hello", text}, arguments), "");
        EXPECT_EQ(arguments.text, text);
    }
}

TEST(Arguments, BehindDashesAreNoOptions) {
    Arguments arguments;
    ASSERT_EQ(ipc::parse_arguments(Words{"hello", "--", "--json"}, arguments), "");
    EXPECT_EQ(arguments.text, "--json");
    EXPECT_FALSE(arguments.json);
}

// Of a wrong command line the words alone tell whether JSON is wanted.
TEST(Arguments, AskForJsonOnlyAsAnOption) {
    EXPECT_TRUE(ipc::wants_json(Words{"--bad", "--json"}));
    EXPECT_FALSE(ipc::wants_json(Words{"--bad", "json"}));
    EXPECT_FALSE(ipc::wants_json(Words{"read", "x", "--", "--json"}));
}

TEST(Arguments, LeaveEachCommandTheTimeThatTheHelpTells) {
    for (const char *word : {"read", "write-ack", "hello"}) {
        EXPECT_EQ(ipc::find_command(word)->timeout_ms, 3000U) << word;
    }
    EXPECT_EQ(ipc::find_command("update")->timeout_ms, 600000U);
}

TEST(Arguments, ReachTheLastAddress) {
    Arguments arguments;
    EXPECT_EQ(ipc::parse_arguments(Words{"read", "ffffffff", "1"}, arguments), "");
    EXPECT_EQ(ipc::parse_arguments(Words{"read", "ff000000", "16777216"}, arguments), "");
}

TEST(Arguments, MakeFileNamesAbsolute) {
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    Arguments arguments;
    ASSERT_EQ(ipc::parse_arguments(Words{"put-picture", "0", "1", "1", "p.bmp"}, arguments), "");
    EXPECT_EQ(arguments.file, std::string(here) + "/p.bmp");
    ASSERT_EQ(ipc::parse_arguments(Words{"put-picture", "0", "1", "1", "/p.bmp"}, arguments), "");
    EXPECT_EQ(arguments.file, "/p.bmp");
}

// These fill it to its last pixel. What is put is limited by its file alone.
TEST(Arguments, LimitPicturesToWhatABmpFileHolds) {
    Arguments arguments;
    EXPECT_EQ(ipc::parse_arguments(Words{"get-picture", "0", "46654", "23015", "/f"}, arguments),
              "");
    EXPECT_EQ(ipc::parse_arguments(Words{"put-picture", "0", "65535", "65535", "/f"}, arguments),
              "");
}

TEST(Arguments, LimitFileNamesToWhatTheServiceKeeps) {
    struct Limit {
        Words command;
        size_t longest;
    };
    for (const Limit &limit :
         {Limit{{"put-picture", "0", "1", "1"}, 255}, Limit{{"get-picture", "0", "1", "1"}, 96},
          Limit{{"update", "16"}, 1005}}) {
        const std::string fits = std::string("/").append(limit.longest - 1, 'n');
        const std::string exceeds = fits + "n";
        Arguments arguments;
        Words words = limit.command;
        words.push_back(fits.c_str());
        EXPECT_EQ(ipc::parse_arguments(words, arguments), "");
        words.back() = exceeds.c_str();
        EXPECT_EQ(ipc::parse_arguments(words, arguments),
                  std::string(limit.command[0]) + ": FILE '" + exceeds +
                      "': " + std::to_string(limit.longest + 1) + " bytes, not at most " +
                      std::to_string(limit.longest) + " with its directory");
    }
}

TEST(Arguments, LimitTheTextOfAGreeting) {
    const std::string fits(1399, 't');
    const std::string exceeds(1400, 't');
    Arguments arguments;
    EXPECT_EQ(ipc::parse_arguments(Words{"hello", fits.c_str()}, arguments), "");
    EXPECT_EQ(ipc::parse_arguments(Words{"hello", exceeds.c_str()}, arguments),
              "hello: TEXT '" + exceeds + "': not a text of at most 1399 bytes");
}

} // namespace
