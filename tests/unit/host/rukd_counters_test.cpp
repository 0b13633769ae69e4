// The counters as rukd prints them: every number under its own name.
#include "counters_json.h"

#include "eth_raw/eth_raw.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

// Each number is different: its place in the record.
ruk_counter_set numbered() {
    ruk_counter_set counters{};
    uint64_t numbers[(sizeof counters - 8) / sizeof(uint64_t)];
    for (size_t i = 0; i < std::size(numbers); i++) {
        numbers[i] = i;
    }
    memcpy(reinterpret_cast<char *>(&counters) + 8, numbers, sizeof numbers);
    return counters;
}

TEST(CountersJson, GivesEachNumberUnderItsName) {
    EXPECT_EQ(
        counters_json(numbered()),
        "{\"counters\":{"
        "\"eth0\":{\"frames_sent\":0,\"bytes_sent\":3,\"send_errors\":6,\"frames_received\":21,"
        "\"bytes_received\":24,\"receive_errors\":27,\"replies\":36,\"unmatched_replies\":39,"
        "\"checksum_errors\":33,\"foreign_frames\":30,\"refusals\":42,\"resends\":9,"
        "\"timeouts\":12,\"unanswered\":15,\"queue_overflows\":18,"
        "\"queued\":{\"ack\":45,\"ack_wait\":46,\"read\":47,\"read_wait\":48}},"
        "\"eth1\":{\"frames_sent\":1,\"bytes_sent\":4,\"send_errors\":7,\"frames_received\":22,"
        "\"bytes_received\":25,\"receive_errors\":28,\"replies\":37,\"unmatched_replies\":40,"
        "\"checksum_errors\":34,\"foreign_frames\":31,\"refusals\":43,\"resends\":10,"
        "\"timeouts\":13,\"unanswered\":16,\"queue_overflows\":19,"
        "\"queued\":{\"ack\":49,\"ack_wait\":50,\"read\":51,\"read_wait\":52}},"
        "\"eth2\":{\"frames_sent\":2,\"bytes_sent\":5,\"send_errors\":8,\"frames_received\":23,"
        "\"bytes_received\":26,\"receive_errors\":29,\"replies\":38,\"unmatched_replies\":41,"
        "\"checksum_errors\":35,\"foreign_frames\":32,\"refusals\":44,\"resends\":11,"
        "\"timeouts\":14,\"unanswered\":17,\"queue_overflows\":20,"
        "\"queued\":{\"ack\":53,\"ack_wait\":54,\"read\":55,\"read_wait\":56}},"
        "\"pool\":{\"in_use\":57,\"free\":58,\"failed\":59}}}");
}

TEST(CountersJson, ShowsTheLargestNumbers) {
    ruk_counter_set counters{};
    counters.bytes_sent[0] = UINT64_MAX;
    EXPECT_NE(counters_json(counters).find("\"bytes_sent\":18446744073709551615,"),
              std::string::npos);
}

} // namespace
