// failing.h - programs under test whose N-th call of a function fails, for N = 1, 2, 3, ...
#ifndef TESTS_FAILURES_FAILING_H
#define TESTS_FAILURES_FAILING_H

#include "order.h"

#include "tests/system/bed/bed.h"

namespace failing {

using bed::Bytes;
using bed::Directory;
using bed::Finished;
using bed::Launch;
using bed::Words;

/** How a call fails. */
struct Failure {
    Call call;
    int error;
    bool goes_on = false; // with all calls behind the first one
};

/** The order that a program under test finds, and what became of it. */
class Failing {
public:
    explicit Failing(const Directory &directory);
    Failing(const Failing &) = delete;
    Failing &operator=(const Failing &) = delete;
    ~Failing();

    /** The same program, with the module that reads the order. */
    [[nodiscard]] Launch with_module(Launch launch) const;

    /** Let the nth call fail, counted from main or from start. */
    void set(const Failure &failure, uint32_t nth, bool from_main);
    void start();
    void stop();

    [[nodiscard]] bool has_fired() const;
    /** "malloc 3 (ENOMEM) in libc.so.6+0x1234" */
    [[nodiscard]] std::string description() const;

private:
    std::string file_;
    Order *order_ = nullptr;
    std::string text_;
};

/**
 * Calls body with each failure at the first call, the second and so on, until it has a run in which
 * nothing failed. Says how many runs there were. In a short run (the default) it leaves most of
 * them out; RUK_FAILURES=all in the environment lets it do all.
 */
void fail_in_turn(const std::string &what, const std::vector<Failure> &failures, Failing &order,
                  bool from_main, const std::function<void()> &body);

/** Each failure once as a single one and once as the first of all. */
std::vector<Failure> single_and_lasting(std::initializer_list<Failure> failures);

/** What a program does that never ends is no result: it fails the test and is killed. */
Finished run_to_end(const Launch &launch);

/** The words of an output that are the same in each run: no times, no numbers of processes. */
std::string lasting_words(const std::string &output);

bool contains(std::string_view text, std::string_view part);

} // namespace failing

#endif
