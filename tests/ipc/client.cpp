#include "client.h"

#include "tests/board/process.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test {

namespace {

constexpr int kNotStarted = 127;

class MemoryFile {
public:
    MemoryFile() : fd_(memfd_create("output", MFD_CLOEXEC)) {
        if (fd_ < 0) {
            throw std::runtime_error("memfd_create");
        }
    }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    ~MemoryFile() {
        (void)close(fd_);
    }
    [[nodiscard]] int fd() const {
        return fd_;
    }
    [[nodiscard]] std::string content() const {
        std::string text(static_cast<size_t>(std::max<off_t>(lseek(fd_, 0, SEEK_END), 0)), '\0');
        const ssize_t got = pread(fd_, text.data(), text.size(), 0);
        text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
        return text;
    }

private:
    int fd_;
};

} // namespace

Finished run_client(const Words &arguments, const std::function<void()> &in_child) {
    const MemoryFile out;
    const MemoryFile err;
    std::string program = RUK_IPC_PROGRAM;
    Words words = arguments;
    std::vector<char *> argv = {program.data()};
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const Stopwatch watch;
    Child child([&] {
        (void)dup2(out.fd(), STDOUT_FILENO);
        (void)dup2(err.fd(), STDERR_FILENO);
        if (in_child) {
            in_child();
        }
        (void)execv(program.c_str(), argv.data());
        return kNotStarted;
    });
    const int status = child.wait();
    const long ms = watch.ms();
    return {status, out.content(), err.content(), ms};
}

void ClientTest::SetUp() {
    std::string name = ::testing::TempDir() + "ipc.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    root_ = name;
    messages_ = root_ / "m";
    (void)setenv("APIPC_DIR", messages_.c_str(), 1);
    (void)setenv("APCARD_SLOT", "3", 1);
}

void ClientTest::TearDown() {
    (void)unsetenv("APIPC_DIR");
    (void)unsetenv("APCARD_SLOT");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

int ClientTest::files_named(const std::string &beginning) const {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(root_)) {
        count += entry.path().filename().string().starts_with(beginning);
    }
    return count;
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::string file_content(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void make_file(const std::string &name, const std::string &content) {
    std::ofstream(name, std::ios::binary) << content;
}

} // namespace test
