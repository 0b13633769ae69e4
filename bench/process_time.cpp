#include "process_time.h"

#include "die.h"
#include "run_apart.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Not by fork, which copies this process's page tables and takes its time for it.
pid_t spawn(const std::vector<std::string> &words, int output) {
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const std::string &word : words) {
        argv.push_back(const_cast<char *>(word.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t streams;
    (void)posix_spawn_file_actions_init(&streams);
    (void)posix_spawn_file_actions_adddup2(&streams, output, STDOUT_FILENO);
    (void)posix_spawn_file_actions_adddup2(&streams, output, STDERR_FILENO);
    pid_t child = -1;
    const int error = posix_spawn(&child, argv[0], &streams, nullptr, argv.data(), environ);
    (void)posix_spawn_file_actions_destroy(&streams);
    errno = error;
    return error == 0 ? child : -1;
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
    pin_to(cpu); // the program inherits it
    const double start = now_us();
    const pid_t child = spawn(words, output);
    int status = 0;
    const bool collected = child > 0 && waitpid(child, &status, 0) == child;
    const double taken = now_us() - start;
    if (!collected || status != 0 || content_of(output).find(wanted) == std::string::npos) {
        die_of((words[0] + ": did not do its work:\n" + content_of(output)).c_str());
    }
    (void)close(output);
    return taken / 1000;
}
