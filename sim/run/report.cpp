#include "run/report.h"

#include "failure.h"
#include "file.h"

namespace card {

namespace {

std::string write_text(FILE *file, const std::string &text, const std::string &name) {
    if (std::fputs(text.c_str(), file) < 0 || std::fflush(file) != 0) {
        return failure("counters", "write", name);
    }
    return "";
}

// Beside the file first and then over it.
std::string replace_file(const std::string &path, const std::string &text) {
    const std::string beside = path + ".tmp";
    const File file(std::fopen(beside.c_str(), "we"));
    if (file == nullptr) {
        return failure("counters", "create", beside);
    }
    std::string error = write_text(file.get(), text, beside);
    if (error.empty() && std::rename(beside.c_str(), path.c_str()) != 0) {
        error = failure("counters", "rename", beside);
    }
    return error;
}

} // namespace

std::string report_counters(const Counters &counters, const std::string &path) {
    const std::string text = counters_json(counters) + "\n";
    return path.empty() ? write_text(stdout, text, "standard output") : replace_file(path, text);
}

} // namespace card
