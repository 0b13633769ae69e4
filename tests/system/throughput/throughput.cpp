#include "tests/system/throughput/throughput.h"

#include "tests/system/bed/preload.h"

#include <cstdlib>

namespace bed {

Words at_speed(int rate) {
    if (rate == kRealTime) {
        return {};
    }
    return preloading(RUK_FAKETIME, {"FAKETIME=+0 x" + std::to_string(rate)});
}

Words command(const Form &form, const Words &arguments) {
    Words words = {"0", form.word, "1", "3", "7040"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

Words arguments_of(const std::string &test) {
    Words words;
    if (test == "test2" || test == "test3") {
        words = {"8000", "0x9000", "ffffffff", "zz", "1"};
    }
    words.push_back(test);
    return words;
}

void expect_normal_end(const Finished &result, const Form &form) {
    EXPECT_EQ(result.status, 0) << form.word << " " << result.err;
    EXPECT_EQ(logged(result, std::string(form.verb) + " register end"), 1) << form.word;
}

int64_t packets_of(const Finished &result, const Load &load, const Form &form) {
    EXPECT_EQ(logged(result, std::string(load.test) + " begin"), 1);
    const std::string middle =
        std::string(" ") + load.unit + " : send " + form.verb + " "; // between time and packets
    EXPECT_EQ(count(result.out, middle), 1) << form.word << " " << load.test;
    const size_t at = result.out.find(middle);
    if (at == std::string::npos) {
        return -1;
    }
    const size_t begin = result.out.rfind("]:: ", at) + 4;
    const int64_t elapsed = strtoll(result.out.c_str() + begin, nullptr, 10);
    const int64_t packets = strtoll(result.out.c_str() + at + middle.size(), nullptr, 10);
    EXPECT_EQ(logged(result, std::to_string(elapsed) + middle + std::to_string(packets) +
                                 " packets " + std::to_string(packets * load.bytes_per_packet) +
                                 " bytes"),
              1)
        << result.out.substr(begin, 200);
    EXPECT_GE(elapsed, load.until) << form.word << " " << load.test;
    EXPECT_GE(packets, 1);
    return packets;
}

} // namespace bed
