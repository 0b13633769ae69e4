// card_and_files.h - a card that holds data, and a file of each kind that programs are given.
#ifndef TESTS_FAILURES_CARD_AND_FILES_H
#define TESTS_FAILURES_CARD_AND_FILES_H

#include "failing.h"

#include <filesystem>

namespace failing {

constexpr uint32_t kAddr = 0x12340; // of everything that is written and read
constexpr size_t kReadLen = 20;
constexpr size_t kFileSize = 3000; // three frames
constexpr uint16_t kWidth = 20;    // of a picture: two frames
constexpr uint16_t kHeight = 25;

/** These, and those of the calls that work on files. */
std::vector<Failure> with_files(std::vector<Failure> failures);

class CardAndFiles : public bed::SystemTest {
protected:
    /** Numbers the firmware that it saves. */
    [[nodiscard]] bed::Card card_with_data() const {
        std::filesystem::create_directories(saved);
        return bed::Card({"--memory-load", memory + "@12340", "--firmware-dir", saved});
    }

    Directory directory;
    std::string memory = directory.file("memory", bed::pattern(kFileSize));
    std::string picture = directory.file("picture", bed::pattern(size_t{kWidth} * kHeight * 3));
    std::string firmware = directory.file("fw.bin", bed::pattern(kFileSize));
    std::string saved = directory.path("got"); // what the card saves
    Failing order{directory};
};

} // namespace failing

#endif
