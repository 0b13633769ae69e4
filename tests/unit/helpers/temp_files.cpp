#include "helpers/temp_files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace test {

TempDirectory::TempDirectory() : name_("/tmp/ruk_unit_XXXXXX") {
    if (mkdtemp(name_.data()) == nullptr) {
        ADD_FAILURE() << "no directory " << name_;
    }
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
}

std::string TempDirectory::long_path(const std::string &name, size_t length) const {
    std::string path = name_;
    const size_t missing = length - path.size() - 1 - name.size();
    path.append(missing, '/'); // any number of slashes leads to the same place
    return path + "/" + name;
}

std::string write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    file.close();
    EXPECT_TRUE(file) << path;
    return path;
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return {text.begin(), text.end()};
}

bool exists(const std::string &path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

std::vector<uint8_t> pattern(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<uint8_t>((i * 7 + i / 251 + i / 65521) % 255 + 1); // never 0
    }
    return bytes;
}

std::vector<uint8_t> bmp_file(uint32_t offset, const std::vector<uint8_t> &pixels) {
    std::vector<uint8_t> bytes(offset, 0xEE);
    bytes[0] = 'B';
    bytes[1] = 'M';
    for (size_t i = 0; i < 4; i++) {
        bytes[10 + i] = static_cast<uint8_t>(offset >> (8 * i));
    }
    bytes.insert(bytes.end(), pixels.begin(), pixels.end());
    return bytes;
}

int open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

} // namespace test
