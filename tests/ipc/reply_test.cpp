// reply_test.cpp - which messages answer a request, and which are left alone.
#include "reply.h"

#include "service.h"

#include <gtest/gtest.h>

namespace {

using ipc::Request;
using test::Bytes;
using test::kServiceAddress;
using test::put_number;
using test::reply_to;

Request request_of(const std::vector<const char *> &words) {
    ipc::Arguments arguments;
    EXPECT_EQ(ipc::parse_arguments(words, arguments), "");
    const auto total = arguments.len + static_cast<uint32_t>(arguments.bytes.size());
    return ipc::build_request(arguments, ipc::piece_at(total, 0), arguments.bytes,
                              {.address = 0x030AC100, .seq = 1000});
}

bool answers(const Request &request, const Bytes &message) {
    return ipc::answers(request, message, kServiceAddress);
}

TEST(Reply, AnswersTheRequestWhoseHeadItRepeats) {
    const Request request = request_of({"--slot", "2", "read", "7040", "4"});
    const Bytes reply = reply_to(request.bytes, 0, {1, 2, 3, 4});
    EXPECT_TRUE(answers(request, reply));
    EXPECT_TRUE(answers(request, reply_to(request.bytes, 0xFFFFFFFF)));
}

TEST(Reply, AnswersNothingWhenOneFieldDiffers) {
    const Request request = request_of({"--slot", "2", "read", "7040", "4"});
    const Bytes right = reply_to(request.bytes, 0, {1, 2, 3, 4});
    struct Change {
        const char *field;
        size_t offset;
        size_t width;
        uint32_t value;
    };
    for (const Change &change :
         {Change{"sender", 0, 4, 0x030A3A00}, Change{"sender's slot", 0, 4, 0x040A3B00},
          Change{"kind", 16, 2, 2}, Change{"class", 18, 2, 27}, Change{"source", 24, 1, 0x3A},
          Change{"id", 25, 1, 0}, Change{"code", 26, 1, 2}, Change{"slot", 27, 1, 3},
          Change{"model", 28, 2, 1}, Change{"older seq", 30, 2, 999},
          Change{"newer seq", 30, 2, 1001}, Change{"addr", 32, 4, 0x7044},
          Change{"len", 36, 2, 8}}) {
        Bytes wrong = right;
        put_number(wrong, change.offset, change.width, change.value);
        EXPECT_FALSE(answers(request, wrong)) << change.field;
    }
}

TEST(Reply, HasAtLeastAHeader) {
    const Request request = request_of({"--slot", "2", "write-ack", "7040", "4"});
    const Bytes reply = reply_to(request.bytes);
    for (size_t length = 0; length < reply.size(); length++) {
        EXPECT_FALSE(
            answers(request, Bytes(reply.begin(), reply.begin() + static_cast<long>(length))))
            << length;
    }
    EXPECT_TRUE(answers(request, reply));
}

TEST(Reply, OfAGreetingIsKnownByItsCodeAlone) {
    const Request request = request_of({"hello"});
    Bytes greeting(112);
    put_number(greeting, 0, 4, kServiceAddress);
    put_number(greeting, 18, 2, 28);
    put_number(greeting, 26, 1, 0xF0);
    EXPECT_TRUE(answers(request, greeting));
    put_number(greeting, 0, 4, 0x030A3A00);
    EXPECT_FALSE(answers(request, greeting));
    const Request read = request_of({"read", "0", "1"});
    put_number(greeting, 0, 4, kServiceAddress);
    EXPECT_FALSE(answers(read, greeting));
}

std::string check(const Request &request, const Bytes &bytes) {
    return ipc::check_reply(request, {.bytes = bytes, .length = bytes.size()});
}

TEST(Reply, CarriesExactlyTheBytesThatWereAskedFor) {
    const Request request = request_of({"--slot", "2", "read", "7040", "4"});
    EXPECT_EQ(check(request, reply_to(request.bytes, 0, {1, 2, 3, 4})), "");
    EXPECT_EQ(check(request, reply_to(request.bytes, 0, {1, 2, 3})),
              "3 bytes of data instead of 4");
    EXPECT_EQ(check(request, reply_to(request.bytes, 0, {1, 2, 3, 4, 5})),
              "5 bytes of data instead of 4");
    Bytes cut = reply_to(request.bytes, 0, {1, 2, 3, 4});
    cut.pop_back();
    EXPECT_EQ(check(request, cut), "a reply of 43 bytes instead of 44");
    cut.resize(45);
    EXPECT_EQ(check(request, cut), "a reply of 45 bytes instead of 44");
}

TEST(Reply, WithoutDataIsAHeader) {
    const Request request = request_of({"--slot", "2", "write-ack", "7040", "4"});
    EXPECT_EQ(check(request, reply_to(request.bytes)), "");
    EXPECT_EQ(check(request, Bytes(41)), "a reply of 41 bytes instead of 40");
}

TEST(Reply, OfAnUpdateNamesItsKind) {
    const Request request = request_of({"update", "19", "/f.bin"});
    Bytes reply = reply_to(request.bytes);
    EXPECT_EQ(check(request, reply), "a reply of 40 bytes instead of 44");
    reply.resize(44);
    put_number(reply, 38, 4, 0x19);
    EXPECT_EQ(check(request, reply), "");
    put_number(reply, 38, 4, 0x1A);
    EXPECT_EQ(check(request, reply), "the reply to an update of kind 0x0000001a");
}

TEST(Reply, OfAGreetingHasItsOwnLength) {
    const Request request = request_of({"hello"});
    EXPECT_EQ(check(request, Bytes(112)), "");
    EXPECT_EQ(check(request, Bytes(70)), "a reply of 70 bytes instead of 112");
}

TEST(Reply, GivesTheTextOfAGreetingWithOrWithoutItsEnd) {
    Bytes bytes(112, 'x');
    EXPECT_EQ(ipc::greeting_of({bytes, bytes.size()}), std::string(32, 'x'));
    bytes[40] = 0;
    EXPECT_EQ(ipc::greeting_of({bytes, bytes.size()}), "xx");
}

} // namespace
