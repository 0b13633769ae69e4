// throughput.h - what the tests of the built-in throughput tests share.
//
// Most runs have their time accelerated by libfaketime: the clocks and the sleeps of the tool go so
// many times faster. The 30 ms tick comes from the kernel's interval timer and keeps its pace, so a
// request that nobody answers takes as long as ever.
#ifndef TESTS_SYSTEM_THROUGHPUT_THROUGHPUT_H
#define TESTS_SYSTEM_THROUGHPUT_THROUGHPUT_H

#include "tests/system/bed/bed.h"

namespace bed {

constexpr int kRealTime = 1;
constexpr int kFast = 5;        // two seconds in 400 ms
constexpr int kFaster = 100;    // for links that fail at once and say so each time
constexpr int kFastest = 40000; // twelve hours in about a second

/** The words before a command that let its time go so many times faster. */
Words at_speed(int rate);

struct Form {
    const char *word;
    uint8_t code;
    bool is_numbered;  // plain writes all carry the number 0
    bool is_pipelined; // goes on without an answer
    const char *verb;
};
inline const Form kWrites[] = {{"write", kWrite, false, false, "write"},
                               {"writea", kWriteAck, true, true, "write"},
                               {"writeaw", kWriteAck, true, false, "write"}};
inline const Form kReads[] = {{"read", kRead, true, true, "read"},
                              {"readw", kRead, true, false, "read"}};

/** The command line of a form with these arguments behind the register. */
Words command(const Form &form, const Words &arguments);

/** The arguments that run a test. */
Words arguments_of(const std::string &test);

void expect_normal_end(const Finished &result, const Form &form);

struct Load {
    const char *test;
    const char *unit;
    int64_t until;
    int64_t bytes_per_packet;
};
constexpr Load kTest4 = {"test4", "us", 2'000'000, 94};
constexpr Load kTest5 = {"test5", "us", 2'000'000, 94};
constexpr Load kTest6 = {"test6", "s", 43'200, 1430};
constexpr Load kTest7 = {"test7", "s", 43'200, 94};

/** Checks the result line and returns its packets. */
int64_t packets_of(const Finished &result, const Load &load, const Form &form);

} // namespace bed

#endif
