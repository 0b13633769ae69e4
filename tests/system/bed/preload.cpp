#include "tests/system/bed/preload.h"

#include <cstdlib>

namespace bed {

// Under the address sanitizer, whose runtime wants to be the first library, the program is told to
// take it as it comes: the shells that it starts inherit the preloaded library, but have no
// sanitizer.
Words preloading(const std::string &library, const Words &settings) {
    const char *options = getenv("ASAN_OPTIONS");
    Words words = {"env", "LD_PRELOAD=" + library,
                   std::string("ASAN_OPTIONS=") + (options != nullptr ? options : "") +
                       ":verify_asan_link_order=0"};
    words.insert(words.end(), settings.begin(), settings.end());
    return words;
}

} // namespace bed
