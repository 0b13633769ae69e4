#include "registers/memory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <unistd.h>
#include <vector>

#include "registers/memory_file.h"

namespace {

using Data = std::vector<uint8_t>;

Data numbered(size_t size) {
    Data data(size);
    std::iota(data.begin(), data.end(), uint8_t{1});
    return data;
}

Data read(const card::Memory &memory, uint32_t addr, size_t size) {
    Data out(size, 0xEE);
    card::memory_read(memory, addr, out);
    return out;
}

size_t pages(const card::Memory &memory) {
    size_t count = 0;
    card::memory_for_each_page(memory, [&](uint32_t, const card::MemoryPage &) {
        count++;
        return true;
    });
    return count;
}

// A file that exists for one test.
struct TemporaryFile {
    TemporaryFile()
        : path(testing::TempDir() + "card_memory_" + std::to_string(getpid()) + "_" +
               testing::UnitTest::GetInstance()->current_test_info()->name()) {
    }
    ~TemporaryFile() {
        (void)std::remove(path.c_str()); // it may never have come into being
    }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    std::string path;
};

Data contents(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_contents(const std::string &path, const Data &data) {
    std::ofstream file(path, std::ios::binary);
    for (const uint8_t byte : data) {
        file.put(static_cast<char>(byte));
    }
}

TEST(Memory, ReadsZerosWhereNothingWasWritten) {
    const card::Memory memory;
    EXPECT_EQ(read(memory, 0xFFFFF000, 8192), Data(8192, 0));
    EXPECT_EQ(pages(memory), 0U);
}

TEST(Memory, GivesBackWhatWasWrittenAcrossPagesAndTables) {
    for (const uint32_t addr : {0U, 0xFFFU, 0x3FFFFFU, 0x12345678U, 0xFFFFFF00U}) {
        card::Memory memory;
        const Data data = numbered(10000);
        card::memory_write(memory, addr, data);
        EXPECT_EQ(read(memory, addr, data.size()), data) << addr;
        EXPECT_EQ(read(memory, addr - 1, 1), Data{0}) << addr;
        EXPECT_EQ(read(memory, addr + 10000, 1), Data{0}) << addr;
    }
}

TEST(Memory, WrapsFromTheLastAddressToTheFirst) {
    card::Memory memory;
    card::memory_write(memory, 0xFFFFFFFE, Data{1, 2, 3, 4});
    EXPECT_EQ(read(memory, 0xFFFFFFFE, 4), (Data{1, 2, 3, 4}));
    EXPECT_EQ(read(memory, 0, 2), (Data{3, 4}));
}

TEST(Memory, MakesOnlyThePagesThatAreWritten) {
    card::Memory memory;
    card::memory_write(memory, 0x1000, Data{1});
    card::memory_write(memory, 0x1FFF, Data{1, 2});
    card::memory_write(memory, 0x80000000, Data{});
    EXPECT_EQ(pages(memory), 2U);
}

TEST(MemoryFile, LoadsAFileToAnAddress) {
    const TemporaryFile file;
    write_contents(file.path, numbered(5000));
    card::Memory memory;
    EXPECT_EQ(card::memory_load(memory, {file.path, 0x18000000}), "");
    EXPECT_EQ(read(memory, 0x18000000, 5000), numbered(5000));
    EXPECT_EQ(read(memory, 0x18000000 + 5000, 1), Data{0});
}

TEST(MemoryFile, SavesARange) {
    const TemporaryFile file;
    card::Memory memory;
    card::memory_write(memory, 0x7040, numbered(100));
    EXPECT_EQ(card::memory_save(memory, {file.path, false, 0x7041, 200}), "");
    Data expected = numbered(100);
    expected.erase(expected.begin());
    expected.resize(200, 0);
    EXPECT_EQ(contents(file.path), expected);
}

TEST(MemoryFile, LoadsAWholeMemoryThatItSaved) {
    const TemporaryFile file;
    card::Memory memory;
    card::memory_write(memory, 0x10, numbered(10));
    card::memory_write(memory, 0x500000, numbered(10));
    ASSERT_EQ(card::memory_save(memory, {.path = file.path}), "");
    EXPECT_EQ(std::filesystem::file_size(file.path), 0x501000U);
    card::Memory again;
    ASSERT_EQ(card::memory_load(again, {file.path, 0}), "");
    EXPECT_EQ(read(again, 0x10, 10), numbered(10));
    EXPECT_EQ(read(again, 0x500000, 10), numbered(10));
    EXPECT_EQ(read(again, 0x400000, 10), Data(10, 0));
}

TEST(MemoryFile, SaysWhatFailed) {
    card::Memory memory;
    EXPECT_EQ(card::memory_load(memory, {"/nonexistent/file", 0}),
              "memory: open '/nonexistent/file': No such file or directory");
    EXPECT_EQ(card::memory_load(memory, {"/", 0}), "memory: load '/': not a regular file");
    EXPECT_EQ(card::memory_save(memory, {.path = "/nonexistent/file"}),
              "memory: create '/nonexistent/file': No such file or directory");
}

TEST(MemoryFile, RefusesAFileThatRunsPastTheEnd) {
    const TemporaryFile file;
    write_contents(file.path, Data(17));
    card::Memory memory;
    EXPECT_EQ(card::memory_load(memory, {file.path, 0xFFFFFFF0}),
              "memory: load '" + file.path + "': runs past the end of the 4 GiB memory");
    write_contents(file.path, Data(16, 7));
    EXPECT_EQ(card::memory_load(memory, {file.path, 0xFFFFFFF0}), "");
    EXPECT_EQ(read(memory, 0xFFFFFFF0, 16), Data(16, 7));
}

TEST(Memory, KnowsItsPagesAndThoseThatAreMissing) {
    const auto memory = std::make_unique<card::Memory>();
    EXPECT_EQ(memory->page_count, 0U);
    EXPECT_EQ(card::memory_missing_pages(*memory, 0xFFF, 2), 2U);
    EXPECT_EQ(card::memory_missing_pages(*memory, 0xFFF, 1), 1U);
    EXPECT_EQ(card::memory_missing_pages(*memory, 0x1000, 0), 0U);
    card::memory_write(*memory, 0x1FFF, Data{1, 2});
    EXPECT_EQ(memory->page_count, 2U);
    card::memory_write(*memory, 0x1000, Data(8192, 3));
    EXPECT_EQ(memory->page_count, 2U);
    EXPECT_EQ(card::memory_missing_pages(*memory, 0, 0x5000), 3U);
    EXPECT_EQ(card::memory_missing_pages(*memory, 0xFFFFF000, 0x2000), 2U) << "over the end";
}

} // namespace
