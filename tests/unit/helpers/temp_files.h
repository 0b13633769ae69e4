// temp_files.h - a directory of a test's own, and whole files.
#ifndef TESTS_UNIT_HELPERS_TEMP_FILES_H
#define TESTS_UNIT_HELPERS_TEMP_FILES_H

#include <cstdint>
#include <string>
#include <vector>

namespace test {

/** Lives as long as the test; then it is removed with everything in it. */
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory &) = delete;
    TempDirectory &operator=(const TempDirectory &) = delete;

    /** The path of a file in it. */
    [[nodiscard]] std::string path(const std::string &name) const {
        return name_ + "/" + name;
    }

    /** A path of exactly so many characters that leads to a file in it. */
    [[nodiscard]] std::string long_path(const std::string &name, size_t length) const;

private:
    std::string name_;
};

/** Write a file. Returns its path. */
std::string write_file(const std::string &path, const std::vector<uint8_t> &bytes);

/** All bytes of a file. A missing file fails the test. */
std::vector<uint8_t> read_file(const std::string &path);

bool exists(const std::string &path);

/** So many bytes, in which neighbours and rows differ. */
std::vector<uint8_t> pattern(size_t size);

/** The header of a 24-bit BMP file as far as the product looks at it, and the pixels behind it. */
std::vector<uint8_t> bmp_file(uint32_t offset, const std::vector<uint8_t> &pixels);

/** Descriptors that this process has open. */
int open_descriptors();

} // namespace test

#endif
