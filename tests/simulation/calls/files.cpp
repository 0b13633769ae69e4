// Files and streams, and the shell commands that the product gives.
#include "calls/files.h"

#include "calls/link.h"
#include "memory/product_memory.h"
#include "scheduler/scheduler.h"
#include "scheduler/settings.h"
#include "scheduler/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace sim {

namespace {

using Content = std::vector<uint8_t>;

struct Stream {
    int fd;
    std::shared_ptr<Content> content;
    size_t position;
    bool has_error;
};

std::map<std::string, std::shared_ptr<Content>> g_files;
std::map<int, std::shared_ptr<Content>> g_open;
std::map<const void *, std::unique_ptr<Stream>> g_streams;

std::shared_ptr<Content> find(const std::string &name) {
    const auto found = g_files.find(name);
    return found == g_files.end() ? nullptr : found->second;
}

Stream &stream_at(FILE *file) {
    const auto found = g_streams.find(file);
    if (found == g_streams.end()) {
        fail("a stream that is not open: %p", static_cast<void *>(file));
    }
    return *found->second;
}

void file_call(const char *call) {
    cancellation_point();
    point(call);
}

void fill_status(struct stat *status, const Content &content) {
    *status = {};
    status->st_mode = S_IFREG | 0644;
    status->st_size = static_cast<off_t>(content.size());
}

// "/bin/rm -f  NAME", "/bin/touch NAME", "sync".
void run_command(const std::string &command) {
    const std::string name = command.substr(command.find_last_of(' ') + 1);
    if (command.rfind("/bin/rm", 0) == 0) {
        g_files.erase(name);
    } else if (command.rfind("/bin/touch", 0) == 0 && find(name) == nullptr) {
        g_files[name] = std::make_shared<Content>();
    }
}

} // namespace

void reset_files() {
    g_files.clear();
    g_open.clear();
    g_streams.clear();
}

void put_file(const std::string &name, std::vector<uint8_t> content) {
    g_files[name] = std::make_shared<Content>(std::move(content));
}

const std::vector<uint8_t> *file_content(const std::string &name) {
    return find(name).get();
}

} // namespace sim

using namespace sim;

extern "C" {

// NOLINTBEGIN: the linker's names
int __wrap_close(int fd);

int __wrap_open(const char *name, int flags, ...) {
    file_call("open");
    std::shared_ptr<Content> content = find(name);
    if (content == nullptr && (flags & O_CREAT) != 0) {
        content = g_files[name] = std::make_shared<Content>();
    }
    if (content == nullptr || fault(g_settings.other_fails_one_in)) {
        errno = content == nullptr ? ENOENT : EMFILE;
        return -1;
    }
    if ((flags & O_TRUNC) != 0) {
        content->clear();
    }
    const int fd = open_other_descriptor("a file");
    g_open[fd] = content;
    SIM_TELL("opens %s: %d", name, fd);
    return fd;
}

FILE *__wrap_fdopen(int fd, const char *) {
    point("fdopen");
    auto stream = std::make_unique<Stream>(
        Stream{.fd = fd, .content = g_open[fd], .position = 0, .has_error = false});
    auto *file = reinterpret_cast<FILE *>(stream.get());
    g_streams[file] = std::move(stream);
    return file;
}

int __wrap_fclose(FILE *file) {
    file_call("fclose");
    const int fd = stream_at(file).fd;
    g_streams.erase(file);
    g_open.erase(fd);
    const bool was_enabled = std::exchange(self().is_cancel_enabled, false);
    (void)__wrap_close(fd);
    self().is_cancel_enabled = was_enabled;
    return 0;
}

size_t __wrap_fread(void *to, size_t size, size_t count, FILE *file) {
    file_call("fread");
    Stream &stream = stream_at(file);
    must_be_usable(to, size * count, "fread");
    const size_t left = stream.content->size() - std::min(stream.position, stream.content->size());
    const size_t taken = size == 0 ? 0 : std::min(count, left / size);
    const OutsideProduct outside;
    std::copy_n(stream.content->data() + stream.position, taken * size, static_cast<uint8_t *>(to));
    stream.position += taken * size;
    return taken;
}

size_t __wrap_fwrite(const void *from, size_t size, size_t count, FILE *file) {
    file_call("fwrite");
    Stream &stream = stream_at(file);
    must_be_usable(from, size * count, "fwrite");
    if (fault(g_settings.other_fails_one_in)) {
        SIM_TELL("fwrite fails: ENOSPC");
        stream.has_error = true;
        errno = ENOSPC;
        return 0;
    }
    const OutsideProduct outside;
    const auto *bytes = static_cast<const uint8_t *>(from);
    stream.content->resize(std::max(stream.content->size(), stream.position + size * count));
    std::copy_n(bytes, size * count, stream.content->data() + stream.position);
    stream.position += size * count;
    return count;
}

int __wrap_ferror(FILE *file) {
    return stream_at(file).has_error ? 1 : 0;
}

int __wrap_fileno(FILE *file) {
    return stream_at(file).fd;
}

int __wrap_fflush(FILE *) {
    file_call("fflush");
    return 0;
}

int __wrap_fseeko(FILE *file, off_t offset, int from) {
    file_call("fseeko");
    Stream &stream = stream_at(file);
    stream.position = static_cast<size_t>(offset) + (from == SEEK_END ? stream.content->size() : 0);
    return 0;
}

off_t __wrap_ftello(FILE *file) {
    return static_cast<off_t>(stream_at(file).position);
}

int __wrap_ftruncate(int fd, off_t size) {
    point("ftruncate");
    g_open[fd]->resize(static_cast<size_t>(size));
    return 0;
}

int __wrap_truncate(const char *name, off_t size) {
    point("truncate");
    if (find(name) == nullptr) {
        errno = ENOENT;
        return -1;
    }
    find(name)->resize(static_cast<size_t>(size));
    return 0;
}

int __wrap_access(const char *name, int) {
    point("access");
    errno = ENOENT;
    return find(name) == nullptr ? -1 : 0;
}

int __wrap_stat(const char *name, struct stat *status) {
    point("stat");
    if (find(name) == nullptr) {
        errno = ENOENT;
        return -1;
    }
    fill_status(status, *find(name));
    return 0;
}

int __wrap_fstat(int fd, struct stat *status) {
    point("fstat");
    fill_status(status, *g_open[fd]);
    return 0;
}

int __wrap_my_system(const char *command) {
    point("my_system");
    SIM_TELL("shell: %s", command);
    run_command(command);
    return 0;
}
// NOLINTEND
}
