// Runs a fuzz target once over every file of the directories and files on its command line, where
// no fuzzer is linked. The last name on standard error is the input that broke something.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using std::filesystem::path;

std::vector<path> inputs_in(const path &place) {
    if (!std::filesystem::is_directory(place)) {
        return {place};
    }
    std::vector<path> inputs;
    for (const auto &entry : std::filesystem::directory_iterator(place)) {
        inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end()); // the order of a directory differs between machines
    return inputs;
}

bool replay(const path &input) {
    std::ifstream file(input, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (!file) {
        (void)fprintf(stderr, "replay: read '%s': failed\n", input.c_str());
        return false;
    }
    (void)fprintf(stderr, "replay: %s\n", input.c_str());
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end()); // no terminator behind the end
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return true;
}

} // namespace

int main(int argc, char **argv) {
    int replayed = 0;
    for (const char *place : std::span<char *>(argv, static_cast<size_t>(argc)).subspan(1)) {
        for (const path &input : inputs_in(place)) {
            if (!replay(input)) {
                return 1;
            }
            replayed += 1;
        }
    }
    if (replayed == 0) {
        (void)fprintf(stderr, "replay: no inputs\n");
        return 1;
    }
    return 0;
}
