#include "faults/counters.h"

#include <gtest/gtest.h>

namespace {

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST(CountersJson, IsOneObjectWithTheFaultsInside) {
    card::Counters counters;
    counters.frames = 7;
    counters.kernel_drops = 18446744073709551615U;
    card::FaultSet set;
    set.add(card::Fault::kDrop);
    set.add(card::Fault::kType);
    card::count_faults(counters, set);
    card::count_faults(counters, set);
    const std::string json = card::counters_json(counters);
    EXPECT_TRUE(json.starts_with(R"({"frames":7,"requests":0,)")) << json;
    EXPECT_TRUE(has(json, R"("kernel_drops":18446744073709551615,"faults":{"drop_request":0,)"))
        << json;
    EXPECT_TRUE(has(json, R"("drop":2,)")) << json;
    EXPECT_TRUE(json.ends_with(R"("type":2}})")) << json;
    EXPECT_EQ(json.find('\n'), std::string::npos);
}

TEST(CountersHelp, NamesEveryFault) {
    for (const char *name : card::kFaultNames) {
        EXPECT_TRUE(has(card::counters_help(), name)) << name;
    }
}

} // namespace
