#include "tests/system/bed/repeat.h"

#include "tests/system/bed/standstill.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <unistd.h>

namespace bed {

namespace {

constexpr char kAttempt[] = "RUK_TEST_ATTEMPT";
constexpr int kAttempts = 3;

bool g_is_serious = false;

// Collects the names of the tests whose failure says nothing.
class Judge : public testing::EmptyTestEventListener {
public:
    void OnTestStart(const testing::TestInfo & /*info*/) override {
        g_is_serious = false;
        (void)standstill_take();
    }

    void OnTestEnd(const testing::TestInfo &info) override {
        const auto standstill = standstill_take();
        if (info.result()->Failed() && !g_is_serious && standstill >= kStandstill) {
            const std::string name = std::string(info.test_suite_name()) + "." + info.name();
            printf("%s: meanwhile the machine stood still for %lld ms\n", name.c_str(),
                   static_cast<long long>(standstill.count()));
            filter_ += (filter_.empty() ? "" : ":") + name;
            count_ += 1;
        }
    }

    [[nodiscard]] bool explains_all_of(const testing::UnitTest &tests) const {
        return count_ > 0 && count_ == tests.failed_test_count() &&
               !tests.ad_hoc_test_result().Failed();
    }
    [[nodiscard]] const std::string &filter() const {
        return filter_;
    }

private:
    std::string filter_;
    int count_ = 0;
};

// A process of its own, so that nothing of the first attempt is left.
void start_anew(const std::string &filter, int attempt) {
    printf("once more: %s\n", filter.c_str());
    (void)fflush(stdout);
    const itimerval off{};
    (void)setitimer(ITIMER_REAL, &off, nullptr); // would outlive the handler of its signal
    (void)setenv(kAttempt, std::to_string(attempt).c_str(), 1);
    const std::string option = "--gtest_filter=" + filter;
    (void)execl("/proc/self/exe", program_invocation_name, option.c_str(), nullptr);
    perror("exec");
}

} // namespace

void repeat_never() {
    g_is_serious = true;
}

int run_and_repeat() {
    testing::UnitTest &tests = *testing::UnitTest::GetInstance();
    auto *judge = new Judge; // the framework's from here on
    tests.listeners().Append(judge);
    standstill_watch();
    const int status = RUN_ALL_TESTS();
    const char *text = getenv(kAttempt);
    const int attempt = text == nullptr ? 1 : atoi(text);
    if (status != 0 && attempt < kAttempts && judge->explains_all_of(tests)) {
        start_anew(judge->filter(), attempt + 1);
    }
    return status;
}

} // namespace bed
