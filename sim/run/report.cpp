#include "run/report.h"

#include <cerrno>
#include <cstring>

#include "file.h"

namespace card {

namespace {

std::string failed(const char *action, const std::string &object) {
    return std::string("counters: ") + action + " '" + object + "': " + std::strerror(errno);
}

std::string write_text(FILE *file, const std::string &text, const std::string &name) {
    if (std::fputs(text.c_str(), file) < 0 || std::fflush(file) != 0) {
        return failed("write", name);
    }
    return "";
}

// Beside the file first and then over it.
std::string replace_file(const std::string &path, const std::string &text) {
    const std::string beside = path + ".tmp";
    const File file(std::fopen(beside.c_str(), "we"));
    if (file == nullptr) {
        return failed("create", beside);
    }
    std::string error = write_text(file.get(), text, beside);
    if (error.empty() && std::rename(beside.c_str(), path.c_str()) != 0) {
        error = failed("rename", beside);
    }
    return error;
}

} // namespace

std::string report_counters(const Counters &counters, const std::string &path) {
    const std::string text = counters_json(counters) + "\n";
    return path.empty() ? write_text(stdout, text, "standard output") : replace_file(path, text);
}

} // namespace card
