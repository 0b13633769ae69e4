#include "process_time.h"

#include "die.h"
#include "run_apart.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void become(const std::vector<std::string> &words, int cpu, int output) {
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const std::string &word : words) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    pin_to(cpu);
    (void)dup2(output, STDOUT_FILENO);
    (void)dup2(output, STDERR_FILENO);
    (void)execv(argv[0], argv.data());
    _exit(127);
}

std::string content_of(int file) {
    std::string content(65536, '\0');
    const ssize_t size = pread(file, content.data(), content.size(), 0);
    content.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return content;
}

} // namespace

double time_process(const std::vector<std::string> &words, int cpu, const std::string &wanted) {
    const int output = memfd_create("output", MFD_CLOEXEC);
    if (output < 0) {
        die("make room for a program's output");
    }
    const double start = now_us();
    const pid_t child = fork();
    if (child == 0) {
        become(words, cpu, output);
    }
    int status = 0;
    const bool collected = child > 0 && waitpid(child, &status, 0) == child;
    const double taken = now_us() - start;
    if (!collected || status != 0 || content_of(output).find(wanted) == std::string::npos) {
        die_of((words[0] + ": did not do its work:\n" + content_of(output)).c_str());
    }
    (void)close(output);
    return taken / 1000;
}
