// mem_test.cpp - size classes, recycling and release of the memory pool.
//
// Linked with --wrap=malloc,free: a test refuses memory to the pool and sees what goes back to the
// system.
#include "mem/mem.h"

#include "helpers/output.h"
#include "log/log.h"
#include "mem/pool_counts.h"
#include "stand_ins/lock_count.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> g_no_memory{false};
std::atomic<size_t> g_last_size{0}; // of the last malloc
const uint64_t g_failed_at_start = mem_failed();
const int64_t g_handed_out_at_start = mem_handed_out();
constexpr size_t kMostWatched = 16;
std::array<std::atomic<const void *>, kMostWatched> g_watched{};
std::atomic<int> g_watched_frees{0};

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void __real_free(void *p);
void __wrap_free(void *p);

void *__wrap_malloc(size_t size) {
    g_last_size = size;
    return g_no_memory ? nullptr : __real_malloc(size);
}

void __wrap_free(void *p) {
    for (auto &watched : g_watched) {
        const void *expected = p;
        if (p != nullptr && watched.compare_exchange_strong(expected, nullptr)) {
            g_watched_frees += 1;
        }
    }
    __real_free(p);
}
}

namespace {

constexpr std::array<uint32_t, 8> kClassSizes{64, 128, 256, 512, 1024, 2048, 4096, 8192};

mem_block *header_of(void *p) {
    return static_cast<mem_block *>(p) - 1;
}

void watch(const void *block) {
    for (auto &watched : g_watched) {
        const void *expected = nullptr;
        if (watched.compare_exchange_strong(expected, block)) {
            return;
        }
    }
    FAIL() << "too many blocks watched";
}

mem_block *new_block(uint32_t type) {
    auto *block = static_cast<mem_block *>(std::malloc(sizeof(mem_block) + 64));
    *block = {.self = block, .type = type, .data = block + 1, .size = 64, .used = 0, .next = block};
    return block;
}

class MemTest : public testing::Test {
protected:
    void SetUp() override {
        (void)mem_uinit();
        handed_out_before_ = mem_handed_out();
        g_watched_frees = 0;
    }

    void TearDown() override {
        log_debug = 0;
        EXPECT_EQ(mem_handed_out(), handed_out_before_);
        (void)mem_uinit();
        for (auto &watched : g_watched) {
            watched = nullptr;
        }
    }

    int64_t handed_out() const {
        return mem_handed_out() - handed_out_before_;
    }

private:
    int64_t handed_out_before_ = 0;
};

// ---------------------------------------------------------------------------------------------

using MemAlloc = MemTest;

TEST_F(MemAlloc, TakesTheSmallestClassThatHoldsTheSize) {
    const struct {
        uint32_t size;
        uint32_t type;
    } rows[] = {{0, 0},    {1, 0},    {63, 0},   {64, 0},   {65, 1},   {128, 1},  {129, 2},
                {256, 2},  {257, 3},  {512, 3},  {513, 4},  {1024, 4}, {1025, 5}, {1430, 5},
                {2048, 5}, {2049, 6}, {4096, 6}, {4097, 7}, {8191, 7}, {8192, 7}};
    for (const auto &row : rows) {
        void *p = mem_alloc(row.size);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(header_of(p)->type, row.type) << row.size;
        EXPECT_EQ(header_of(p)->size, kClassSizes[row.type]) << row.size;
        mem_free(p);
    }
}

TEST_F(MemAlloc, RefusesMoreThan8192WithoutAWord) {
    log_debug = 1;
    const std::string text = test::output_of([] {
        for (const uint32_t size : {8193U, 65536U, 0x80000000U, UINT32_MAX}) {
            EXPECT_EQ(mem_alloc(size), nullptr) << size;
        }
    });
    EXPECT_EQ(text, "");
}

TEST_F(MemAlloc, PutsTheHeaderDirectlyBeforeTheData) {
    for (const uint32_t size : kClassSizes) {
        void *p = mem_alloc(size);
        ASSERT_NE(p, nullptr);
        const mem_block *block = header_of(p);
        EXPECT_EQ(block->self, block);
        EXPECT_EQ(block->data, p);
        EXPECT_EQ(static_cast<void *>(static_cast<char *>(p) - sizeof(mem_block)), block->self);
        EXPECT_EQ(block->used, 1U);
        EXPECT_EQ(block->next, nullptr);
        mem_free(p);
        EXPECT_EQ(block->used, 0U);
    }
}

TEST_F(MemAlloc, SetsTheHeaderOfARecycledBlockAnew) {
    mem_block *block = new_block(0);
    block->used = 0xFF;
    block->size = 1;
    block->self = nullptr;
    block->data = nullptr;
    mem_push(0, block);
    void *p = mem_alloc(10);
    ASSERT_EQ(p, block + 1);
    EXPECT_EQ(block->self, block);
    EXPECT_EQ(block->type, 0U);
    EXPECT_EQ(block->data, p);
    EXPECT_EQ(block->size, 64U);
    EXPECT_EQ(block->used, 1U);
    EXPECT_EQ(block->next, nullptr);
    mem_free(p);
}

TEST_F(MemAlloc, AsksTheSystemForHeaderAndClassSize) {
    std::vector<void *> blocks;
    for (const uint32_t size : kClassSizes) {
        blocks.push_back(mem_alloc(size - 1));
        EXPECT_EQ(g_last_size, sizeof(mem_block) + size);
    }
    std::for_each(blocks.begin(), blocks.end(), mem_free);
}

TEST_F(MemAlloc, GivesNullWhenTheSystemHasNoMemory) {
    void *recycled = mem_alloc(100);
    ASSERT_NE(recycled, nullptr);
    mem_free(recycled);

    g_no_memory = true;
    void *from_list = mem_alloc(100);
    void *another = mem_alloc(100);
    void *other_class = mem_alloc(1000);
    g_no_memory = false;

    EXPECT_EQ(from_list, recycled); // no memory is asked for while a free block is there
    EXPECT_EQ(another, nullptr);
    EXPECT_EQ(other_class, nullptr);
    EXPECT_EQ(handed_out(), 1);
    mem_free(from_list);
}

// ---------------------------------------------------------------------------------------------

using MemFree = MemTest;

TEST_F(MemFree, IgnoresNull) {
    mem_free(nullptr);
    EXPECT_EQ(handed_out(), 0);
    EXPECT_EQ(mem_pop(0), nullptr);
}

TEST_F(MemFree, MakesBlocksAvailableOldestFirst) {
    for (const uint32_t size : kClassSizes) {
        void *a = mem_alloc(size);
        void *b = mem_alloc(size);
        void *c = mem_alloc(size);
        mem_free(b);
        mem_free(a);
        mem_free(c);
        EXPECT_EQ(mem_alloc(size), b);
        EXPECT_EQ(mem_alloc(size), a);
        EXPECT_EQ(mem_alloc(size), c);
        for (void *p : {a, b, c}) {
            mem_free(p);
        }
    }
}

TEST_F(MemFree, KeepsTheOrderWhenTheListRunsEmptyInBetween) {
    void *a = mem_alloc(1);
    void *b = mem_alloc(1);
    void *c = mem_alloc(1);
    mem_free(a);
    EXPECT_EQ(mem_alloc(1), a); // empty again
    mem_free(b);
    mem_free(a);
    mem_free(c);
    EXPECT_EQ(mem_alloc(1), b);
    mem_free(b); // behind the others
    EXPECT_EQ(mem_alloc(1), a);
    EXPECT_EQ(mem_alloc(1), c);
    EXPECT_EQ(mem_alloc(1), b);
    EXPECT_EQ(mem_pop(0), nullptr);
    for (void *p : {a, b, c}) {
        mem_free(p);
    }
}

TEST_F(MemFree, KeepsTheClassesApart) {
    void *small = mem_alloc(64);
    void *large = mem_alloc(65);
    mem_free(small);
    mem_free(large);
    EXPECT_EQ(mem_pop(2), nullptr);
    EXPECT_EQ(mem_alloc(65), large);
    EXPECT_EQ(mem_alloc(64), small);
    mem_free(small);
    mem_free(large);
}

TEST_F(MemFree, LeavesABlockAloneThatIsFreeAlready) {
    void *p = mem_alloc(1);
    mem_free(p);
    log_debug = 1;
    const std::string text = test::output_of([=] { mem_free(p); });
    std::ostringstream expected;
    expected << "mem: free " << p << ": already free, ignored\n";
    EXPECT_TRUE(test::ends_as_log_line(text, expected.str())) << text;
    EXPECT_EQ(handed_out(), 0);
    void *first = mem_alloc(1);
    void *second = mem_alloc(1);
    EXPECT_EQ(first, p);
    EXPECT_NE(second, p);
    mem_free(first);
    mem_free(second);
}

// Wherever it stands on its list.
TEST_F(MemFree, LeavesEachOfSeveralFreeBlocksAlone) {
    std::array<void *, 3> blocks{};
    std::generate(blocks.begin(), blocks.end(), [] { return mem_alloc(200); });
    std::for_each(blocks.begin(), blocks.end(), mem_free);
    log_debug = 1;
    const std::string text = test::output_of([&] {
        std::for_each(blocks.begin(), blocks.end(), mem_free);
        mem_push(2, static_cast<mem_block *>(blocks[1]) - 1);
        mem_push(5, static_cast<mem_block *>(blocks[2]) - 1); // also on another class's list
    });
    EXPECT_EQ(test::occurrences(text, "already free, ignored\n"), 5);
    EXPECT_EQ(handed_out(), 0);
    for (void *block : blocks) {
        EXPECT_EQ(mem_alloc(200), block);
    }
    EXPECT_EQ(mem_pop(2), nullptr);
    EXPECT_EQ(mem_pop(5), nullptr);
    std::for_each(blocks.begin(), blocks.end(), mem_free);
}

TEST_F(MemFree, TakesBackABlockOfMemPop) {
    void *first = mem_alloc(100);
    void *second = mem_alloc(100);
    mem_free(first);
    mem_free(second);
    mem_block *popped = mem_pop(1);
    ASSERT_NE(popped, nullptr);
    EXPECT_EQ(popped->data, first);
    EXPECT_EQ(popped->used, 0U);
    log_debug = 1;
    EXPECT_EQ(test::output_of([=] { mem_free(popped->data); }), "");
    log_debug = 0;
    EXPECT_EQ(handed_out(), 0);
    EXPECT_EQ(mem_alloc(100), second);
    EXPECT_EQ(mem_alloc(100), first);
    mem_free(first);
    mem_free(second);
}

// ---------------------------------------------------------------------------------------------

using MemPush = MemTest;

TEST_F(MemPush, AppendsToTheListOfItsClass) {
    mem_block *first = new_block(3);
    mem_block *second = new_block(3);
    mem_push(3, first);
    EXPECT_EQ(first->next, nullptr);
    mem_push(3, second);
    EXPECT_EQ(first->next, second);
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(mem_pop(3), first);
    EXPECT_EQ(mem_pop(3), second);
    EXPECT_EQ(mem_pop(3), nullptr);
    std::free(first);
    std::free(second);
}

TEST_F(MemPush, GivesABlockOfAnUnknownClassBackToTheSystem) {
    int released = 0;
    for (const int32_t type : {-1, 8, 9, 255, INT32_MIN, INT32_MAX}) {
        mem_block *block = new_block(0);
        watch(block);
        mem_push(type, block);
        EXPECT_EQ(g_watched_frees, ++released) << type;
    }
    for (int32_t type = 0; type < 8; type++) {
        EXPECT_EQ(mem_pop(type), nullptr);
    }
}

TEST_F(MemPush, IsReachedByAFreedBlockWhoseClassIsDamaged) {
    void *p = mem_alloc(1);
    watch(header_of(p));
    header_of(p)->type = 8;
    mem_free(p);
    EXPECT_EQ(g_watched_frees, 1);
    EXPECT_EQ(mem_pop(0), nullptr);
}

TEST_F(MemPush, IgnoresNull) {
    for (const int32_t type : {-1, 0, 7, 8}) {
        mem_push(type, nullptr);
    }
    EXPECT_EQ(mem_pop(0), nullptr);
    EXPECT_EQ(mem_pop(7), nullptr);
}

TEST(MemPop, GivesNullForAClassOutOfRange) {
    for (const int32_t type : {-1, 8, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(mem_pop(type), nullptr);
    }
}

// ---------------------------------------------------------------------------------------------

using MemInit = MemTest;

TEST_F(MemInit, LogsWithoutALineEnd) {
    log_debug = 1;
    const std::string text = test::output_of([] {
        EXPECT_EQ(mem_init(), 0);
        (void)printf("next");
    });
    EXPECT_TRUE(test::ends_as_log_line(text, "USE MEM_MANAGENnext"));
}

TEST_F(MemInit, ForgetsTheFreeBlocksWithoutReleasingThem) {
    std::vector<mem_block *> blocks;
    for (int32_t type = 0; type < 8; type++) {
        blocks.push_back(new_block(0));
        watch(blocks.back());
        mem_push(type, blocks.back());
    }
    EXPECT_EQ(mem_init(), 0);
    for (int32_t type = 0; type < 8; type++) {
        EXPECT_EQ(mem_pop(type), nullptr);
    }
    EXPECT_EQ(g_watched_frees, 0);
    std::for_each(blocks.begin(), blocks.end(), std::free);
}

using MemUinit = MemTest;

TEST_F(MemUinit, ReleasesEveryFreeBlockAndForgetsIt) {
    std::vector<void *> blocks;
    for (const uint32_t size : kClassSizes) {
        blocks.push_back(mem_alloc(size));
        blocks.push_back(mem_alloc(size));
    }
    for (void *p : blocks) {
        watch(header_of(p));
        mem_free(p);
    }
    EXPECT_EQ(mem_uinit(), 0);
    EXPECT_EQ(g_watched_frees, 16);
    for (int32_t type = 0; type < 8; type++) {
        EXPECT_EQ(mem_pop(type), nullptr);
    }
    EXPECT_EQ(mem_uinit(), 0); // nothing is released twice
}

TEST_F(MemUinit, LeavesBlocksThatAreHandedOut) {
    void *p = mem_alloc(64);
    memset(p, 0x5A, 64);
    EXPECT_EQ(mem_uinit(), 0);
    EXPECT_EQ(static_cast<uint8_t *>(p)[63], 0x5A);
    mem_free(p);
    EXPECT_EQ(mem_alloc(64), p); // and the pool goes on
    mem_free(p);
}

// ---------------------------------------------------------------------------------------------

// Each of them by the time it is back, and no two at a time.
TEST_F(MemTest, TouchesItsListsUnderTheLock) {
    const std::function<void()> calls[] = {
        [] { (void)mem_init(); },      [] { mem_push(0, new_block(0)); },
        [] { std::free(mem_pop(0)); }, [] { mem_free(mem_alloc(64)); },
        [] { (void)mem_waiting(); },   [] { (void)mem_uinit(); },
    };
    const int locks[] = {2, 1, 1, 2, 1, 1}; // mem_init logs, which takes a lock of its own
    for (size_t i = 0; i < std::size(calls); i++) {
        const test::LockUse use = test::locks_of(calls[i]);
        EXPECT_EQ(use.taken, locks[i]) << i;
        EXPECT_EQ(use.deepest, 1) << i;
        EXPECT_EQ(use.kept, 0) << i;
    }
}

TEST_F(MemTest, IsFreeInAChildWhereverItsParentsThreadsWere) {
    EXPECT_EQ(test::fork_amid([] { (void)mem_waiting(); }, 1, [] { mem_free(mem_alloc(64)); }), 0);
}

TEST_F(MemTest, CountsNoBlockThatItRefuses) {
    void *p = mem_alloc(64);
    mem_push(0, header_of(p)); // a host's way, which the count does not see
    mem_free(p);
    EXPECT_EQ(handed_out(), 1);
    mem_block *hosts = new_block(0); // freed in its place
    hosts->used = 1;
    mem_free(hosts->data);
    EXPECT_EQ(handed_out(), 0);
}

TEST_F(MemTest, CountsWhatWaitsToBeHandedOut) {
    std::array<void *, 3> blocks{mem_alloc(64), mem_alloc(64), mem_alloc(8192)};
    EXPECT_EQ(mem_waiting(), 0U);
    std::for_each(blocks.begin(), blocks.end(), mem_free);
    EXPECT_EQ(mem_waiting(), 3U);
    blocks[0] = mem_alloc(64);
    EXPECT_EQ(mem_waiting(), 2U);
    mem_free(blocks[0]);
    EXPECT_EQ(mem_waiting(), 3U);
    (void)mem_uinit();
    EXPECT_EQ(mem_waiting(), 0U);
}

TEST_F(MemTest, CountsWhatTheSystemRefuses) {
    EXPECT_EQ(g_failed_at_start, 0U);
    EXPECT_EQ(g_handed_out_at_start, 0);
    const uint64_t before = mem_failed();
    g_no_memory = true;
    EXPECT_EQ(mem_alloc(64), nullptr);
    g_no_memory = false;
    EXPECT_EQ(mem_failed(), before + 1);
}

TEST_F(MemTest, CountsWhatIsHandedOut) {
    void *a = mem_alloc(1);
    void *b = mem_alloc(8192);
    EXPECT_EQ(mem_alloc(8193), nullptr);
    EXPECT_EQ(handed_out(), 2);
    mem_free(a);
    EXPECT_EQ(handed_out(), 1);
    mem_free(b);
    EXPECT_EQ(handed_out(), 0);
}

// Takes and gives blocks in random order, each filled with a pattern that nobody else may touch.
bool use_pool(unsigned seed) {
    constexpr size_t kHeld = 16;
    struct Piece {
        uint8_t *data = nullptr;
        uint32_t size = 0;
    };
    std::minstd_rand random(seed);
    std::array<Piece, kHeld> pieces{};
    const auto mark = static_cast<uint8_t>(seed);
    bool is_intact = true;
    for (int round = 0; round < 4000; round++) {
        Piece &piece = pieces[random() % kHeld];
        if (piece.data != nullptr) {
            is_intact = is_intact && std::all_of(piece.data, piece.data + piece.size,
                                                 [=](uint8_t byte) { return byte == mark; });
            mem_free(piece.data);
            piece.data = nullptr;
        } else {
            piece.size = kClassSizes[random() % 3];
            piece.data = static_cast<uint8_t *>(mem_alloc(piece.size));
            memset(piece.data, mark, piece.size);
        }
    }
    for (const Piece &piece : pieces) {
        mem_free(piece.data);
    }
    return is_intact;
}

TEST_F(MemTest, GivesEachBlockToOneThreadOnly) {
    constexpr unsigned kThreads = 4;
    std::atomic<unsigned> intact{0};
    std::vector<std::thread> threads;
    for (unsigned id = 1; id <= kThreads; id++) {
        threads.emplace_back([&intact, id] { intact += use_pool(id) ? 1U : 0U; });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(intact, kThreads);
    EXPECT_EQ(handed_out(), 0);
}

// Blocks wander from the threads that take them to those that free them; nothing gets lost on the
// lists on the way, and none appears on them twice.
TEST_F(MemTest, LosesNoBlockWhenManyThreadsFree) {
    constexpr size_t kThreads = 4;
    constexpr size_t kEach = 5000;
    std::vector<void *> blocks(kThreads * kEach);
    std::generate(blocks.begin(), blocks.end(), [] { return mem_alloc(200); });
    std::atomic<size_t> ready{0};
    std::vector<std::thread> threads;
    for (size_t id = 0; id < kThreads; id++) {
        threads.emplace_back([&blocks, &ready, id] {
            ready += 1;
            while (ready < kThreads) { // together, or the first one is done before the last starts
                std::this_thread::yield();
            }
            for (size_t i = 0; i < kEach; i++) {
                mem_free(blocks[i * kThreads + id]);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    std::set<void *> listed;
    while (mem_block *block = mem_pop(2)) {
        EXPECT_TRUE(listed.insert(block->data).second);
        std::free(block);
        ASSERT_LE(listed.size(), blocks.size());
    }
    EXPECT_EQ(listed, std::set<void *>(blocks.begin(), blocks.end()));
}

} // namespace
