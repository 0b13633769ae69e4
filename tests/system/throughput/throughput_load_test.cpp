// The built-in throughput tests under load: every packet that they count has gone to the card.
#include "tests/system/throughput/throughput.h"

#include <cstdlib>
#include <fstream>

namespace bed {

namespace {

class ThroughputLoad : public SystemTest {};

int64_t dropped_by_the_cable() {
    std::ifstream file("/sys/class/net/eth0/statistics/tx_dropped");
    int64_t dropped = -1;
    file >> dropped;
    EXPECT_GE(dropped, 0);
    return dropped;
}

// The card answers in turn: with this answer it has seen everything before. It is asked for another
// address than the test, whose late answers carry the same numbers. Returns the requests that it
// took.
int ask_until_answered() {
    for (int asked = 1; asked <= 100; asked++) {
        if (count(ruk({"0", "readw", "1", "3", "9000", "4"}).out, "\n00009000: 0") == 1) {
            return asked;
        }
    }
    ADD_FAILURE() << "the card does not answer any more";
    return 0;
}

Finished run_against_a_card(const Load &load, const Form &form, int rate) {
    const int64_t dropped_before = dropped_by_the_cable();
    Card card;
    const Finished result = ruk(command(form, {load.test}), at_speed(rate));
    expect_normal_end(result, form);
    const int64_t packets = packets_of(result, load, form);
    EXPECT_EQ(count(result.out, "\n00007040: "), 0); // read data are not shown
    const int64_t asked = ask_until_answered();
    const Counters counters = card.stop_overloaded();
    const int64_t lost =
        counters["kernel_drops"] + dropped_by_the_cable() - dropped_before; // before the card
    const int64_t resent = count(result.out, "send msg again (");
    // Requests that found no room in the queue.
    const int64_t unsent = count(result.out, "assert queue_add fail again");
    // The end of the tool may come between a resend's line and its frame.
    const int64_t missing = packets + resent - unsent + asked - counters["requests"] - lost;
    EXPECT_GE(missing, 0) << form.word << " " << load.test << " " << counters.json;
    EXPECT_LE(missing, form.is_pipelined ? 1 : 0)
        << packets << " packets, " << resent << " sent again, " << counters.json;
    if (!form.is_pipelined) {
        EXPECT_EQ(resent, 0);
    }
    return result;
}

TEST_F(ThroughputLoad, Test4CountsWhatTheCardGets) {
    EXPECT_GE(run_against_a_card(kTest4, kWrites[0], kRealTime).duration, 2s);
    // It gives the card five seconds more.
    EXPECT_GE(run_against_a_card(kTest4, kWrites[1], kRealTime).duration, 7s);
    (void)run_against_a_card(kTest4, kWrites[2], kFast);
}

TEST_F(ThroughputLoad, Test5CountsWhatTheCardGets) {
    (void)run_against_a_card(kTest5, kReads[0], kFast);
    EXPECT_GE(run_against_a_card(kTest5, kReads[1], kRealTime).duration, 7s);
}

TEST_F(ThroughputLoad, Test6CountsWhatTheCardGets) {
    for (const Form &form : kWrites) {
        (void)run_against_a_card(kTest6, form, kFastest);
    }
}

TEST_F(ThroughputLoad, Test7CountsWhatTheCardGets) {
    for (const Form &form : kReads) {
        (void)run_against_a_card(kTest7, form, kFastest);
    }
}

} // namespace

} // namespace bed
