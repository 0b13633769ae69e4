// order.h - which call is to fail: a record in a file that a test shares with the program under
// test.
#ifndef TESTS_FAILURES_ORDER_H
#define TESTS_FAILURES_ORDER_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace failing {

// Environment of the program: the file with the order. It needs the module in LD_PRELOAD, too.
constexpr char kOrderVariable[] = "RUK_FAILING_ORDER";

enum class Call : uint32_t {
    kMalloc, // calloc and realloc too: one count for all memory
    kSocket,
    kIoctl,
    kBind,
    kSendto,
    kRecvfrom,
    kRecv,
    kPthreadCreate,
    kOpen,
    kFopen,
    kFdopen,
    kFread,
    kFwrite,
    kFclose,
    kSemget,
    kSemop,
    kApipcSend,
    kNone,
};
constexpr std::array<const char *, static_cast<size_t>(Call::kNone)> kCallNames = {
    "malloc", "socket", "ioctl", "bind",   "sendto", "recvfrom", "recv",  "pthread_create", "open",
    "fopen",  "fdopen", "fread", "fwrite", "fclose", "semget",   "semop", "apipc_send"};

struct Order {
    std::atomic<Call> call;
    std::atomic<uint32_t> nth;       // the first one that fails, counted from 1
    std::atomic<uint32_t> goes_on;   // 1: all behind it fail as well
    std::atomic<int32_t> error;      // errno of the failure
    std::atomic<uint32_t> from_main; // 1: counting starts with the program's main function
    std::atomic<uint32_t> is_counting;
    std::atomic<uint32_t> seen;  // calls counted
    std::atomic<uint32_t> fired; // failures
    std::atomic<uint64_t> where; // of the first one: the return address, less where its file starts
    char object[64];             // the file that it is in, its last characters
};

} // namespace failing

#endif
