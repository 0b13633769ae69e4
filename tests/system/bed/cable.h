// cable.h - the virtual cable to the card, removed and made anew.
#ifndef TESTS_SYSTEM_BED_CABLE_H
#define TESTS_SYSTEM_BED_CABLE_H

#include "tests/system/bed/bed.h"

#include <cstdlib>
#include <net/if.h>
#include <thread>

namespace bed {

inline bool ip(const Words &words) {
    Words argv = {"ip"};
    argv.insert(argv.end(), words.begin(), words.end());
    return run({.argv = argv}).status == 0;
}

/** The cable between eth0 and card0; there again, and working, when its owner is gone. */
class Cable {
public:
    Cable() = default;
    Cable(const Cable &) = delete;
    Cable &operator=(const Cable &) = delete;
    ~Cable() {
        if (if_nametoindex("eth0") == 0) {
            (void)ip({"link", "del", "other"}); // a test that failed may have left it
            make();
        }
    }
    void remove() const {
        ASSERT_TRUE(ip({"link", "del", "eth0"}));
    }
    /** The kernel chooses the interface's number, 0, or is told it. */
    void make(unsigned number = 0) const {
        Words words = {"link", "add", "name", "eth0"};
        if (number != 0) {
            words.insert(words.end(), {"index", std::to_string(number)});
        }
        words.insert(words.end(), {"mtu", "9000", "type", "veth", "peer", "name", "card0", "mtu",
                                   "9000", "netns", card_process()});
        ASSERT_TRUE(ip(words));
        const std::string network = "--net=" + std::string(getenv("RUK_CARD_NETNS"));
        ASSERT_EQ(run({.argv = {"nsenter", network, "ip", "link", "set", "card0", "up"}}).status,
                  0);
        ASSERT_TRUE(ip({"link", "set", "eth0", "up"}));
        for (int i = 0; i < 300 && has_no_carrier(); i++) {
            std::this_thread::sleep_for(10ms);
        }
    }

private:
    // From /proc/PID/ns/net.
    static std::string card_process() {
        const std::string path = getenv("RUK_CARD_NETNS");
        const size_t begin = std::string_view("/proc/").size();
        return path.substr(begin, path.find('/', begin) - begin);
    }
    static bool has_no_carrier() {
        return count(run({.argv = {"ip", "link", "show", "dev", "eth0"}}).out, "NO-CARRIER") > 0;
    }
};

} // namespace bed

#endif
