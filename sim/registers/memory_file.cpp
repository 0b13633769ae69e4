#include "registers/memory_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "failure.h"
#include "fd.h"

namespace card {

namespace {

constexpr size_t kChunk = 65536;

// Move all of a buffer with pread or pwrite; 0, or the errno. A file that ends early gives EIO.
template <class Call, class Buffer>
int move_all(Call call, int fd, uint64_t offset, Buffer buffer) {
    while (!buffer.empty()) {
        const ssize_t moved = call(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            return moved < 0 ? errno : EIO;
        }
        buffer = buffer.subspan(static_cast<size_t>(moved));
        offset += static_cast<uint64_t>(moved);
    }
    return 0;
}

int load_stretch(Memory &memory, int fd, uint32_t addr, uint64_t begin, uint64_t end) {
    std::vector<uint8_t> chunk(kChunk);
    for (uint64_t at = begin; at < end; at += kChunk) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(kChunk, end - at));
        const MutableBytes part(chunk.data(), count);
        const int error = move_all(pread, fd, at, part);
        if (error != 0) {
            return error;
        }
        memory_write(memory, static_cast<uint32_t>(addr + at), part);
    }
    return 0;
}

int load_data(Memory &memory, int fd, uint32_t addr, uint64_t size) {
    uint64_t at = 0;
    while (at < size) {
        const off_t data = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0) {
            return errno == ENXIO ? 0 : errno; // ENXIO: only a hole is left
        }
        const off_t hole = lseek(fd, data, SEEK_HOLE);
        if (hole < 0) {
            return errno;
        }
        at = std::min(static_cast<uint64_t>(hole), size);
        const int error = load_stretch(memory, fd, addr, static_cast<uint64_t>(data), at);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int save_range(const Memory &memory, int fd, uint32_t addr, uint64_t len) {
    std::vector<uint8_t> chunk(kChunk);
    for (uint64_t at = 0; at < len; at += kChunk) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(kChunk, len - at));
        const MutableBytes part(chunk.data(), count);
        memory_read(memory, static_cast<uint32_t>(addr + at), part);
        const int error = move_all(pwrite, fd, at, part);
        if (error != 0) {
            return error;
        }
    }
    return 0;
}

int save_whole(const Memory &memory, int fd) {
    int error = 0;
    memory_for_each_page(memory, [&](uint32_t addr, const MemoryPage &page) {
        error = move_all(pwrite, fd, addr, Bytes(page.bytes));
        return error == 0;
    });
    return error;
}

} // namespace

std::string memory_load(Memory &memory, const LoadOrder &order) {
    const Fd file(open(order.path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status = {};
    if (!file.valid() || fstat(file.get(), &status) != 0) {
        return failure("memory", "open", order.path);
    }
    if (!S_ISREG(status.st_mode)) {
        return failure("memory", "load", order.path, "not a regular file");
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size > kMemorySize - order.addr) {
        return failure("memory", "load", order.path, "runs past the end of the 4 GiB memory");
    }
    const int error = load_data(memory, file.get(), order.addr, size);
    return error == 0 ? "" : failure("memory", "load", order.path, std::strerror(error));
}

std::string memory_save(const Memory &memory, const SaveOrder &order) {
    const Fd file(open(order.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.valid()) {
        return failure("memory", "create", order.path);
    }
    const int error = order.whole ? save_whole(memory, file.get())
                                  : save_range(memory, file.get(), order.addr, order.len);
    return error == 0 ? "" : failure("memory", "save", order.path, std::strerror(error));
}

} // namespace card
