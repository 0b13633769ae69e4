#include "counters_json.h"

#include "eth_raw/eth_raw.h"

#include <cstdint>

namespace {

struct LinkRow {
    const char *name;
    uint64_t (ruk_counter_set::*values)[RUK_COUNTED_LINKS];
};

// An operator who looks for the reason of a failure reads from the left.
constexpr LinkRow kLinkRows[] = {
    {"frames_sent", &ruk_counter_set::frames_sent},
    {"bytes_sent", &ruk_counter_set::bytes_sent},
    {"send_errors", &ruk_counter_set::send_errors},
    {"frames_received", &ruk_counter_set::frames_received},
    {"bytes_received", &ruk_counter_set::bytes_received},
    {"receive_errors", &ruk_counter_set::receive_errors},
    {"replies", &ruk_counter_set::replies},
    {"unmatched_replies", &ruk_counter_set::unmatched_replies},
    {"checksum_errors", &ruk_counter_set::checksum_errors},
    {"foreign_frames", &ruk_counter_set::foreign_frames},
    {"refusals", &ruk_counter_set::refusals},
    {"resends", &ruk_counter_set::resends},
    {"timeouts", &ruk_counter_set::timeouts},
    {"unanswered", &ruk_counter_set::unanswered},
    {"queue_overflows", &ruk_counter_set::queue_overflows},
};

// By queue number.
constexpr const char *kQueueNames[RUK_COUNTED_QUEUES] = {"ack", "ack_wait", "read", "read_wait"};

std::string item(const char *name, uint64_t value) {
    return std::string("\"") + name + "\":" + std::to_string(value);
}

std::string link_json(const ruk_counter_set &counters, int index) {
    std::string text = "{";
    for (const LinkRow &row : kLinkRows) {
        text += item(row.name, (counters.*row.values)[index]) + ",";
    }
    text += "\"queued\":{";
    for (int queue = 0; queue < RUK_COUNTED_QUEUES; queue++) {
        text += (queue == 0 ? "" : ",") + item(kQueueNames[queue], counters.queued[index][queue]);
    }
    return text + "}}";
}

} // namespace

std::string counters_json(const ruk_counter_set &counters) {
    std::string text = "{\"counters\":{";
    for (int index = 0; index < RUK_COUNTED_LINKS; index++) {
        text += std::string("\"") + g_netdev_name[index] + "\":" + link_json(counters, index) + ",";
    }
    return text + "\"pool\":{" + item("in_use", counters.pool_in_use) + "," +
           item("free", counters.pool_free) + "," + item("failed", counters.pool_failed) + "}}}";
}
