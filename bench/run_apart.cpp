#include "run_apart.h"

#include "die.h"

#include <chrono>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void write_all(int fd, const std::vector<double> &figures) {
    const size_t bytes = figures.size() * sizeof(double);
    if (write(fd, figures.data(), bytes) != static_cast<ssize_t>(bytes)) {
        die("hand over the figures");
    }
}

std::vector<double> read_all(int fd) {
    std::vector<double> figures;
    double figure = 0;
    while (read(fd, &figure, sizeof figure) == static_cast<ssize_t>(sizeof figure)) {
        figures.push_back(figure);
    }
    return figures;
}

} // namespace

std::vector<double> run_apart(const std::function<std::vector<double>()> &work) {
    int ends[2];
    if (pipe(ends) != 0) {
        die("make a pipe");
    }
    (void)fflush(stdout); // or the child would print it once more
    const pid_t child = fork();
    if (child < 0) {
        die("start a process");
    }
    if (child == 0) {
        (void)close(ends[0]);
        write_all(ends[1], work()); // a few figures: they fit into the pipe
        _exit(0);                   // the product's threads still run
    }
    (void)close(ends[1]);
    std::vector<double> figures = read_all(ends[0]);
    (void)close(ends[0]);
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
        die_of("a measurement failed");
    }
    return figures;
}

void pin_to(int cpu) {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    CPU_SET(static_cast<size_t>(cpu), &mask);
    if (sched_setaffinity(0, sizeof mask, &mask) != 0) {
        die("keep a process on its processor");
    }
}

double now_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(now).count();
}
