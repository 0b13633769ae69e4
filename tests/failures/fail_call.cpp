// fail_call - a module for LD_PRELOAD that lets the N-th call of a function fail.
//
// It stands in front of the C library, and of the message library for apipc_send. Only the program
// that was started with it counts: the module takes itself out of the environment for what that
// program starts, and a forked copy is told from it by its process id. A call that is let through
// is not touched, so that a program whose order is for another time behaves as without the module.
#include "order.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

using failing::Call;
using failing::Order;

// The C library's own names: dlsym takes memory itself, so it cannot be asked for these.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
}

#define MODULE_API extern "C" __attribute__((visibility("default")))

namespace {

using Main = int (*)(int, char **, char **);

Order *g_order = nullptr; // null until the module is set up, and without an order
pid_t g_program = 0;
Main g_main = nullptr;

// The function that stands behind this one.
template <typename Function>
Function *next_one(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// dladdr takes no memory.
void note_place(const void *where) {
    Dl_info info{};
    if (dladdr(where, &info) == 0 || info.dli_fname == nullptr) {
        return;
    }
    g_order->where = static_cast<uint64_t>(static_cast<const char *>(where) -
                                           static_cast<const char *>(info.dli_fbase));
    std::string_view name = info.dli_fname;
    name.remove_prefix(name.rfind('/') + 1); // the whole name where there is no '/'
    (void)name.copy(g_order->object, sizeof g_order->object - 1);
}

// Counts the call; true: it must fail, and errno says how.
bool must_fail(Call call, const void *where) {
    if (g_order == nullptr || g_order->is_counting == 0 || g_order->call != call ||
        getpid() != g_program) {
        return false;
    }
    const uint32_t number = ++g_order->seen;
    const uint32_t nth = g_order->nth;
    if (number < nth || (number > nth && g_order->goes_on == 0)) {
        return false;
    }
    if (g_order->fired++ == 0) {
        note_place(where);
    }
    errno = g_order->error;
    return true;
}

int counted_main(int argc, char **argv, char **environment) {
    if (g_order != nullptr && g_order->from_main != 0) {
        g_order->is_counting = 1;
    }
    return g_main(argc, argv, environment);
}

__attribute__((constructor)) void set_up() {
    const char *name = getenv(failing::kOrderVariable);
    const int fd = name != nullptr ? open(name, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    void *place = mmap(nullptr, sizeof(Order), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)close(fd);
    (void)unsetenv("LD_PRELOAD");
    g_program = getpid();
    if (place != MAP_FAILED) {
        g_order = static_cast<Order *>(place);
    }
}

// What a stream whose call has failed shows to ferror.
void mark_error(FILE *stream) {
    stream->_flags |= _IO_ERR_SEEN;
}

// What a program tells of itself is what the tests look at: it always gets through.
bool is_standard(const FILE *stream) {
    return stream == stdout || stream == stderr;
}

} // namespace

#define WHERE __builtin_extract_return_addr(__builtin_return_address(0))

MODULE_API int __libc_start_main(Main main_function, int argc, char **argv, void (*init)(),
                                 void (*fini)(), void (*loader_fini)(), void *stack_end) {
    g_main = main_function;
    return next_one<decltype(__libc_start_main)>("__libc_start_main")(
        counted_main, argc, argv, init, fini, loader_fini, stack_end);
}

MODULE_API void *malloc(size_t size) noexcept {
    return must_fail(Call::kMalloc, WHERE) ? nullptr : __libc_malloc(size);
}

MODULE_API void *calloc(size_t count, size_t size) noexcept {
    return must_fail(Call::kMalloc, WHERE) ? nullptr : __libc_calloc(count, size);
}

MODULE_API void *realloc(void *old, size_t size) noexcept {
    return must_fail(Call::kMalloc, WHERE) ? nullptr : __libc_realloc(old, size);
}

MODULE_API int socket(int domain, int type, int protocol) noexcept {
    static auto *const real = next_one<decltype(socket)>("socket");
    return must_fail(Call::kSocket, WHERE) ? -1 : real(domain, type, protocol);
}

MODULE_API int ioctl(int fd, unsigned long what, ...) noexcept {
    static auto *const real = next_one<int(int, unsigned long, void *)>("ioctl");
    va_list arguments;
    va_start(arguments, what);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return must_fail(Call::kIoctl, WHERE) ? -1 : real(fd, what, argument);
}

MODULE_API int bind(int fd, const sockaddr *address, socklen_t size) noexcept {
    static auto *const real = next_one<decltype(bind)>("bind");
    return must_fail(Call::kBind, WHERE) ? -1 : real(fd, address, size);
}

MODULE_API ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *address,
                          socklen_t address_size) {
    static auto *const real = next_one<decltype(sendto)>("sendto");
    return must_fail(Call::kSendto, WHERE) ? -1
                                           : real(fd, data, size, flags, address, address_size);
}

MODULE_API ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *address,
                            socklen_t *address_size) {
    static auto *const real = next_one<decltype(recvfrom)>("recvfrom");
    return must_fail(Call::kRecvfrom, WHERE) ? -1
                                             : real(fd, data, size, flags, address, address_size);
}

MODULE_API ssize_t recv(int fd, void *data, size_t size, int flags) {
    static auto *const real = next_one<decltype(recv)>("recv");
    return must_fail(Call::kRecv, WHERE) ? -1 : real(fd, data, size, flags);
}

MODULE_API int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*body)(void *), void *argument) noexcept {
    static auto *const real = next_one<decltype(pthread_create)>("pthread_create");
    return must_fail(Call::kPthreadCreate, WHERE) ? errno
                                                  : real(thread, attributes, body, argument);
}

namespace {

int real_open(const char *name, int flags, va_list arguments) {
    static auto *const real = next_one<int(const char *, int, mode_t)>("open");
    return real(name, flags, (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0);
}

} // namespace

MODULE_API int open(const char *name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int fd = must_fail(Call::kOpen, WHERE) ? -1 : real_open(name, flags, arguments);
    va_end(arguments);
    return fd;
}

MODULE_API int open64(const char *name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int fd =
        must_fail(Call::kOpen, WHERE) ? -1 : real_open(name, flags | O_LARGEFILE, arguments);
    va_end(arguments);
    return fd;
}

MODULE_API FILE *fopen(const char *name, const char *mode) {
    static auto *const real = next_one<decltype(fopen)>("fopen");
    return must_fail(Call::kFopen, WHERE) ? nullptr : real(name, mode);
}

MODULE_API FILE *fopen64(const char *name, const char *mode) {
    static auto *const real = next_one<decltype(fopen)>("fopen64");
    return must_fail(Call::kFopen, WHERE) ? nullptr : real(name, mode);
}

MODULE_API FILE *fdopen(int fd, const char *mode) noexcept {
    static auto *const real = next_one<decltype(fdopen)>("fdopen");
    return must_fail(Call::kFdopen, WHERE) ? nullptr : real(fd, mode);
}

MODULE_API size_t fread(void *data, size_t size, size_t count, FILE *stream) {
    static auto *const real = next_one<decltype(fread)>("fread");
    if (!must_fail(Call::kFread, WHERE)) {
        return real(data, size, count, stream);
    }
    mark_error(stream);
    return 0;
}

MODULE_API size_t fwrite(const void *data, size_t size, size_t count, FILE *stream) {
    static auto *const real = next_one<decltype(fwrite)>("fwrite");
    if (is_standard(stream) || !must_fail(Call::kFwrite, WHERE)) {
        return real(data, size, count, stream);
    }
    mark_error(stream);
    return 0;
}

// The stream is gone in any case; what it still held did not reach the disk.
MODULE_API int fclose(FILE *stream) {
    static auto *const real = next_one<decltype(fclose)>("fclose");
    if (is_standard(stream) || !must_fail(Call::kFclose, WHERE)) {
        return real(stream);
    }
    const int error = errno;
    (void)real(stream);
    errno = error;
    return EOF;
}

MODULE_API int semget(key_t key, int count, int flags) noexcept {
    static auto *const real = next_one<decltype(semget)>("semget");
    return must_fail(Call::kSemget, WHERE) ? -1 : real(key, count, flags);
}

MODULE_API int semop(int id, sembuf *operations, size_t count) noexcept {
    static auto *const real = next_one<decltype(semop)>("semop");
    return must_fail(Call::kSemop, WHERE) ? -1 : real(id, operations, count);
}

MODULE_API int apipc_send(int address, void *message, unsigned length) {
    static auto *const real = next_one<int(int, void *, unsigned)>("apipc_send");
    return must_fail(Call::kApipcSend, WHERE) ? -1 : real(address, message, length);
}
