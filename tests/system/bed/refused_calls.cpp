#include "tests/system/bed/refused_calls.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace bed {

namespace {

// Where a filter finds the call's number and the lower half of its first argument.
constexpr uint32_t kNumber = offsetof(seccomp_data, nr);
constexpr uint32_t kFirstArgument =
    offsetof(seccomp_data, args) + (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 4 : 0);

constexpr sock_filter load(uint32_t offset) {
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset);
}

// Goes on, or over so many rows where the loaded word is another.
constexpr sock_filter if_equal(uint32_t value, uint8_t else_skip) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, else_skip);
}

constexpr sock_filter if_has_bits(uint32_t bits, uint8_t else_skip) {
    return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, else_skip);
}

constexpr sock_filter fail(uint32_t error) {
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error);
}

constexpr sock_filter kAllow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);

template <size_t kRows>
void install(sock_filter (&rows)[kRows]) {
    const sock_fprog program{.len = kRows, .filter = rows};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        perror("seccomp");
        _exit(1);
    }
}

} // namespace

void refuse_to_bind() {
    sock_filter rows[] = {load(kNumber), if_equal(SYS_bind, 1), fail(EADDRNOTAVAIL), kAllow};
    install(rows);
}

void refuse_a_timer() {
    sock_filter rows[] = {load(kNumber), if_equal(SYS_setitimer, 1), fail(EPERM), kAllow};
    install(rows);
}

void refuse_threads() {
    // Without the newer call, whose flags lie in memory, the C library uses the older one.
    sock_filter rows[] = {
        load(kNumber),        if_equal(SYS_clone3, 1),      fail(ENOSYS), if_equal(SYS_clone, 3),
        load(kFirstArgument), if_has_bits(CLONE_THREAD, 1), fail(EAGAIN), kAllow};
    install(rows);
}

} // namespace bed
