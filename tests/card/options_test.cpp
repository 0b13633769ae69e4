#include "run/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using card::Fault;
using card::Options;

std::string parse(const std::vector<const char *> &arguments, Options &out) {
    return card::parse_options(arguments, out);
}

Options good(const std::vector<const char *> &arguments) {
    Options options;
    EXPECT_EQ(parse(arguments, options), "");
    return options;
}

std::string wrong(const std::vector<const char *> &arguments) {
    Options options;
    return parse(arguments, options);
}

uint32_t rate(const Options &options, Fault fault) {
    return options.faults.rates_ppm[static_cast<size_t>(fault)];
}

TEST(Options, NeedNothingButAnInterface) {
    const Options options = good({"card0"});
    EXPECT_EQ(options.interfaces, std::vector<std::string>{"card0"});
    EXPECT_EQ(options.faults.seed, 1U);
    EXPECT_FALSE(options.identity.model);
    EXPECT_FALSE(options.trace);
    for (const uint32_t ppm : options.faults.rates_ppm) {
        EXPECT_EQ(ppm, 0U);
    }
}

TEST(Options, TakeValuesInBothForms) {
    const Options options =
        good({"--model=0x102", "--slot", "c", "--seed", "7", "card0", "--", "--odd"});
    EXPECT_EQ(options.identity.model, 0x102);
    EXPECT_EQ(options.identity.slot, 0xC);
    EXPECT_EQ(options.faults.seed, 7U);
    EXPECT_EQ(options.interfaces, (std::vector<std::string>{"card0", "--odd"}));
}

TEST(Options, SetEachRate) {
    const Options options = good({"--drop", "1", "--drop-requests", "2", "--corrupt", "3",
                                  "--duplicate", "4", "--reorder", "5", "--noise", "6", "c"});
    EXPECT_EQ(rate(options, Fault::kDrop), 10000U);
    EXPECT_EQ(rate(options, Fault::kDropRequest), 20000U);
    EXPECT_EQ(rate(options, Fault::kCorrupt), 30000U);
    EXPECT_EQ(rate(options, Fault::kDuplicate), 40000U);
    EXPECT_EQ(rate(options, Fault::kReorder), 50000U);
    EXPECT_EQ(rate(options, Fault::kNoise), 60000U);
}

TEST(Options, DelayAllRepliesUnlessAShareOrANumberIsGiven) {
    EXPECT_EQ(rate(good({"--delay", "5ms", "c"}), Fault::kDelay), card::kAlways);
    EXPECT_EQ(rate(good({"--delay-share", "10", "--delay", "5", "c"}), Fault::kDelay), 100000U);
    EXPECT_EQ(rate(good({"--delay=5", "--nth", "delay:2", "c"}), Fault::kDelay), 0U);
    const Options options = good({"--delay", "1ms:2s", "c"});
    EXPECT_EQ(options.faults.delay_min_us, 1000U);
    EXPECT_EQ(options.faults.delay_max_us, 2000000U);
}

TEST(Options, CollectRulesInTheirOrder) {
    const Options options =
        good({"--lie-field", "2000@30x1", "--error-with-data", "ff@any", "--error", "05@7040x3",
              "--silence", "10-1f", "--lie-length", "+5@20", "c"});
    const auto &rules = options.faults.rules;
    ASSERT_EQ(rules.size(), 5U);
    EXPECT_TRUE(rules[0].lie.field_only);
    EXPECT_EQ(rules[0].lie.amount, 2000U);
    EXPECT_EQ(rules[0].range.times, 1U);
    EXPECT_EQ(rules[1].fault, Fault::kError);
    EXPECT_EQ(rules[1].status, 0xFF);
    EXPECT_TRUE(rules[1].with_data);
    EXPECT_EQ(rules[2].fault, Fault::kError);
    EXPECT_EQ(rules[2].status, 5);
    EXPECT_EQ(rules[2].range.times, 3U);
    EXPECT_FALSE(rules[2].with_data);
    EXPECT_EQ(rules[3].fault, Fault::kSilence);
    EXPECT_EQ(rules[3].range.last, 0x1FU);
    EXPECT_EQ(rules[4].fault, Fault::kLieLength);
    EXPECT_TRUE(rules[4].lie.relative);
    EXPECT_EQ(rules[4].lie.amount, 5U);
    EXPECT_FALSE(rules[4].lie.field_only);
}

TEST(Options, TakeTheLastOfSeveralValues) {
    const Options options = good({"--slot", "1", "--counters", "a", "--drop", "5", "c", "--drop=7",
                                  "--counters=b", "--slot=2", "--trace", "--trace"});
    EXPECT_EQ(options.identity.slot, 2);
    EXPECT_EQ(options.counters_path, "b");
    EXPECT_EQ(rate(options, Fault::kDrop), 70000U);
    EXPECT_TRUE(options.trace);
}

TEST(Options, TakeWhatLooksLikeAnOptionAsAValue) {
    const Options options = good({"--counters", "--trace", "--memory-load", "-x", "c"});
    EXPECT_EQ(options.counters_path, "--trace");
    EXPECT_FALSE(options.trace);
    ASSERT_EQ(options.loads.size(), 1U);
    EXPECT_EQ(options.loads[0].path, "-x");
}

TEST(Options, TakeTheRest) {
    const Options options =
        good({"--nth", "drop:1,3", "--nth=noise:2", "--ack-code", "10", "--read-code", "5",
              "--type", "0800", "--counters", "a", "--trace-file", "b", "c"});
    ASSERT_EQ(options.faults.nth.size(), 3U);
    EXPECT_EQ(options.faults.nth[1].number, 3U);
    EXPECT_EQ(options.faults.nth[2].fault, Fault::kNoise);
    EXPECT_EQ(options.faults.ack_code, 0x10);
    EXPECT_EQ(options.faults.read_code, 0x05);
    EXPECT_EQ(options.faults.reply_type, 0x0008) << "08 00 on the wire";
    EXPECT_EQ(options.counters_path, "a");
    EXPECT_EQ(options.trace_path, "b");
    EXPECT_TRUE(options.trace);
}

TEST(Options, TakeMemoryFiles) {
    const Options options = good({"--memory-load", "a", "--memory-load=b@c@18000000",
                                  "--memory-save", "d", "--memory-save", "e@ffffff00:256", "c"});
    ASSERT_EQ(options.loads.size(), 2U);
    EXPECT_EQ(options.loads[0].addr, 0U);
    EXPECT_EQ(options.loads[1].path, "b@c");
    EXPECT_EQ(options.loads[1].addr, 0x18000000U);
    ASSERT_EQ(options.saves.size(), 2U);
    EXPECT_TRUE(options.saves[0].whole);
    EXPECT_FALSE(options.saves[1].whole);
    EXPECT_EQ(options.saves[1].addr, 0xFFFFFF00U);
    EXPECT_EQ(options.saves[1].len, 256U);
}

TEST(Options, TakePictures) {
    const Options options = good({"--picture-dir", "d", "--ddr2-picture", "0:0:1920x1080",
                                  "--ddr2-picture=1:1FfF8:1x2", "c"});
    EXPECT_EQ(options.picture_directory, "d");
    ASSERT_EQ(options.ddr2_pictures.size(), 2U);
    EXPECT_EQ(options.ddr2_pictures[0].width, 1920U);
    EXPECT_EQ(options.ddr2_pictures[0].height, 1080U);
    EXPECT_EQ(options.ddr2_pictures[1].memory, 1U);
    EXPECT_EQ(options.ddr2_pictures[1].addr, 0x1FFF8U);
    EXPECT_EQ(options.ddr2_pictures[1].height, 2U);
    EXPECT_TRUE(good({"c"}).picture_directory.empty());
}

TEST(Options, RefuseWrongPictures) {
    for (const char *text :
         {"", "0", "0:0", "0:0:", "0:0:1", "0:0:x", "0:0:1x", "0:0:x1", "2:0:1x1", ":0:1x1",
          "0::1x1", "0:0:0x1", "0:0:1x0", "0:0:65536x1", "0:0:65535x65535", "0:ffffffff:1x1",
          "0:g:1x1", "0:0:1x1 ", "0:0:1x1:1"}) {
        EXPECT_TRUE(wrong({"--picture-dir", "d", "--ddr2-picture", text, "c"})
                        .starts_with("--ddr2-picture: '" + std::string(text) +
                                     "': expected MEM:ADDR:WIDTHxHEIGHT"))
            << text;
    }
    EXPECT_EQ(wrong({"--ddr2-picture", "0:0:1x1", "c"}), "--ddr2-picture requires --picture-dir");
    EXPECT_EQ(wrong({"--picture-dir=", "c"}), "--picture-dir: '': expected a name");
}

TEST(Options, TakeFirmware) {
    const Options options =
        good({"--firmware-dir", "d", "--refuse-field", "v", "--refuse-field=card_modelid:fF",
              "--refuse-block", "12", "--refuse-block=0x10:0x07", "c"});
    EXPECT_EQ(options.firmware_directory, "d");
    const auto &refusals = options.firmware_refusals;
    ASSERT_EQ(refusals.size(), 4U);
    EXPECT_EQ(refusals[0].field, card::FirmwareField::kV);
    EXPECT_EQ(refusals[0].status, 1);
    EXPECT_EQ(refusals[1].field, card::FirmwareField::kCardModelid);
    EXPECT_EQ(refusals[1].status, 0xFF);
    EXPECT_FALSE(refusals[2].field);
    EXPECT_EQ(refusals[2].block, 12U);
    EXPECT_EQ(refusals[2].status, 1);
    EXPECT_EQ(refusals[3].block, 16U);
    EXPECT_EQ(refusals[3].status, 7);
    EXPECT_TRUE(good({"c"}).firmware_directory.empty());
    EXPECT_TRUE(good({"c"}).firmware_refusals.empty());
}

TEST(Options, TakeEveryFirmwareField) {
    const char *const names[] = {
        "total_files_size", "files_recv_len", "total_files_count", "current_file_size", "v",
        "device_type",      "card_modelid"};
    for (size_t i = 0; i < 7; i++) {
        const Options options = good({"--refuse-field", names[i], "c"});
        ASSERT_EQ(options.firmware_refusals.size(), 1U);
        EXPECT_EQ(options.firmware_refusals[0].field, static_cast<card::FirmwareField>(i));
    }
}

TEST(Options, RefuseWrongFirmware) {
    for (const char *text :
         {"", "w", "V", "v ", "v:", "v:0", "v:00", "v:100", "v:g", "v:1:2", ":1", "vv"}) {
        EXPECT_EQ(wrong({"--refuse-field", text, "c"}),
                  "--refuse-field: '" + std::string(text) +
                      "': expected NAME or NAME:STATUS with NAME total_files_size, "
                      "files_recv_len, total_files_count, current_file_size, v, device_type or "
                      "card_modelid and STATUS hexadecimal 1 to ff")
            << text;
    }
    for (const char *text :
         {"", "0", "-1", "x", "1:", "1:0", "1:100", ":1", "1:1:1", "4294967296", "1 "}) {
        EXPECT_EQ(wrong({"--refuse-block", text, "c"}),
                  "--refuse-block: '" + std::string(text) +
                      "': expected N or N:STATUS with N from 1 and STATUS hexadecimal 1 to ff")
            << text;
    }
    EXPECT_EQ(wrong({"--firmware-dir=", "c"}), "--firmware-dir: '': expected a name");
    EXPECT_EQ(wrong({"c", "--refuse-block"}), "--refuse-block: 1 required N[:STATUS] missing");
}

TEST(Options, HelpAndVersionNeedNoInterface) {
    EXPECT_EQ(good({"-h"}).text, good({"--help"}).text);
    EXPECT_TRUE(good({"--drop", "5", "--version"}).text.starts_with("ruk-card "));
    EXPECT_TRUE(good({"c"}).text.empty());
}

struct WrongCase {
    std::vector<const char *> arguments;
    const char *message;
};

TEST(Options, SayWhatIsWrong) {
    const WrongCase cases[] = {
        {{}, "IFNAME is required"},
        {{"--drop", "5"}, "IFNAME is required"},
        {{"--no-such", "c"}, "The following argument was not expected: --no-such"},
        {{"-x", "c"}, "The following argument was not expected: -x"},
        {{"c", "--drop"}, "--drop: 1 required P missing"},
        {{"--trace=1", "c"}, "trace was given a disallowed flag override"},
        {{"--drop", "abc", "c"}, "--drop: 'abc': expected a percentage from 0 to 100"},
        {{"--model", "10000", "c"}, "--model: '10000': expected hexadecimal 0 to ffff"},
        {{"--slot=100", "c"}, "--slot: '100': expected hexadecimal 0 to ff"},
        {{"--seed", "x", "c"}, "--seed: 'x': expected a number"},
        {{"--error", "0@any", "c"},
         "--error: '0@any': expected STATUS@RANGE with STATUS hexadecimal 1 to ff "
         "and RANGE ADDR, ADDR-ADDR or any, perhaps followed by xN"},
        {{"--error", "5", "c"},
         "--error: '5': expected STATUS@RANGE with STATUS hexadecimal 1 to ff "
         "and RANGE ADDR, ADDR-ADDR or any, perhaps followed by xN"},
        {{"--error", "5@9-8", "c"},
         "--error: '5@9-8': expected STATUS@RANGE with STATUS hexadecimal 1 to ff "
         "and RANGE ADDR, ADDR-ADDR or any, perhaps followed by xN"},
        {{"--silence", "", "c"},
         "--silence: '': expected ADDR, ADDR-ADDR or any, perhaps followed by xN"},
        {{"--lie-length", "65536@any", "c"},
         "--lie-length: '65536@any': expected LEN@RANGE with LEN a length up to 65535 "
         "or +N and RANGE ADDR, ADDR-ADDR or any, perhaps followed by xN"},
        {{"--memory-save", "f@10", "c"},
         "--memory-save: 'f@10': expected FILE or FILE@ADDR:LEN within 4 GiB"},
        {{"--memory-save", "f@ffffffff:2", "c"},
         "--memory-save: 'f@ffffffff:2': expected FILE or FILE@ADDR:LEN within 4 GiB"},
        {{"--memory-load", "f@", "c"}, "--memory-load: 'f@': expected FILE or FILE@ADDR"},
        {{"--memory-load", "", "c"}, "--memory-load: '': expected FILE or FILE@ADDR"},
        {{"--counters=", "c"}, "--counters: '': expected a name"},
        {{"--memory-save", "@10:1", "c"},
         "--memory-save: '@10:1': expected FILE or FILE@ADDR:LEN within 4 GiB"},
        {{"--delay-share", "5", "c"},
         "--delay-share or --nth delay requires --delay with a time above 0"},
        {{"c", "c"}, "IFNAME: 'c': given twice"},
        {{""}, "IFNAME: '': expected a name of 1 to 15 characters"},
        {{"0123456789abcdef"}, "IFNAME: '0123456789abcdef': expected a name of 1 to 15 characters"},
    };
    for (const WrongCase &row : cases) {
        SCOPED_TRACE(row.message);
        EXPECT_EQ(wrong(row.arguments), row.message);
    }
    for (const char *nth : {"drop", "drop:", "drop:0", "drop:1,", "error:1", ":1", "drop:1;2"}) {
        EXPECT_TRUE(wrong({"--nth", nth, "c"}).starts_with("--nth: '")) << nth;
    }
    for (const char *delay : {"", "x", "5:", ":5", "9:5", "1h"}) {
        EXPECT_TRUE(wrong({"--delay", delay, "c"}).starts_with("--delay: '")) << delay;
    }
}

TEST(Options, TakeNoMoreThanSixteenInterfaces) {
    const std::vector<const char *> names = {"1", "2",  "3",  "4",  "5",  "6",  "7",  "8",
                                             "9", "10", "11", "12", "13", "14", "15", "16"};
    EXPECT_EQ(good(names).interfaces.size(), 16U);
    std::vector<const char *> more = names;
    more.push_back("17");
    EXPECT_EQ(wrong(more), "IFNAME: '17': more than 16 interfaces");
}

TEST(Help, NamesEveryOptionAndExitStatus) {
    const std::string text = good({"--help"}).text;
    for (const char *part :
         {"--drop-requests P", "--memory-save FILE[@ADDR:LEN]", "--nth", "--lie-field",
          "--picture-dir DIR", "port_complete", "--firmware-dir DIR",
          "--refuse-field NAME[:STATUS]", "--refuse-block N[:STATUS]", "firmware_intact",
          "firmware_transfer_blocks", "unanswered_requests", "Exit status:", "SIGUSR1"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part;
    }
}

} // namespace
