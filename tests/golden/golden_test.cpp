// Frames written by hand, compared both ways: the packer gives the file, the file unpacks to the
// values, and nothing shorter does.
#include "eth_raw/eth_raw.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<uint8_t> load(const std::string &name) {
    std::ifstream file(std::string(GOLDEN_DIRECTORY) + "/" + name + ".hex");
    EXPECT_TRUE(file.is_open()) << name;
    std::vector<uint8_t> bytes;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
        }
    }
    return bytes;
}

struct Request {
    const char *file;
    uint16_t model;
    uint8_t slot;
    uint8_t code;
    uint32_t addr;
    uint16_t seq;
    uint16_t len;
    uint8_t fill;
    size_t frame_len;
};

const Request kRequests[] = {
    {"write_ack_one_byte", 1, 3, 0x11, 0x7040, 5, 1, 0x01, 94},
    {"read_1400", 2, 1, 0, 0x000A0000, 7, 1400, 0x00, 94},
    {"write_65", 0xABCD, 0xFE, 1, 0x12345678, 0, 65, 0x80, 95},
};

TEST(GoldenRequest, IsWhatThePackerBuilds) {
    for (const Request &r : kRequests) {
        uint8_t *buf = RawMsgBuffGet(1400);
        ASSERT_NE(buf, nullptr);
        if (r.code != 0) {
            std::fill(buf, buf + r.len, r.fill);
        }
        uint8_t *frame = buf;
        const uint32_t len =
            RawMsgHeaderPack(r.model, r.slot, r.code, r.addr, r.seq, &frame, r.len);
        EXPECT_EQ(len, r.frame_len) << r.file;
        EXPECT_EQ(std::vector<uint8_t>(frame, frame + len), load(r.file)) << r.file;
        RawMsgBuffFree(buf);
    }
}

struct Reply {
    const char *file;
    uint8_t ack;
    uint16_t model;
    uint8_t slot;
    uint16_t seq;
    uint8_t code;
    uint32_t addr;
    std::vector<uint8_t> payload;
};

const uint8_t *unpack(const std::vector<uint8_t> &frame, uint32_t size, Reply &to, uint16_t &len) {
    return RawMsgHeaderUnpack(frame.data(), size, &to.ack, &to.model, &to.slot, &to.code, &to.addr,
                              &to.seq, &len);
}

TEST(GoldenReply, UnpacksToItsValuesAndNoShorterPrefixDoes) {
    const Reply replies[] = {
        {"reply_read_6", 0, 2, 1, 7, 0, 0x1000, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66}},
        {"reply_ack_refused", 5, 1, 3, 5, 0x11, 0x7040, {}},
    };
    for (const Reply &expected : replies) {
        const auto frame = load(expected.file);
        Reply got{};
        uint16_t len = 0xFFFF;
        const uint8_t *payload = unpack(frame, static_cast<uint32_t>(frame.size()), got, len);
        ASSERT_EQ(payload, frame.data() + 29) << expected.file;
        EXPECT_EQ(got.ack, expected.ack);
        EXPECT_EQ(got.model, expected.model);
        EXPECT_EQ(got.slot, expected.slot);
        EXPECT_EQ(got.seq, expected.seq);
        EXPECT_EQ(got.code, expected.code);
        EXPECT_EQ(got.addr, expected.addr);
        EXPECT_EQ(std::vector<uint8_t>(payload, payload + len), expected.payload);
        for (uint32_t size = 0; size < frame.size(); size++) {
            EXPECT_EQ(unpack(frame, size, got, len), nullptr) << expected.file << " " << size;
        }
    }
}

} // namespace
