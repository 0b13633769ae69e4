#include "ap_msg/firmware/shell_command.h"

#include "board/board.h"
#include "log/write.h"

#include <algorithm>

namespace {

constexpr std::string_view kPlainCharacters = "abcdefghijklmnopqrstuvwxyz"
                                              "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                              "0123456789._/+-=@%,:";
constexpr std::string_view kQuote = "'";
constexpr std::string_view kQuoteInside = R"('\'')";

bool is_plain(std::string_view name) {
    return !name.empty() && name.find_first_not_of(kPlainCharacters) == std::string_view::npos;
}

uint8_t *append(uint8_t *to, std::string_view text) {
    return std::copy(text.begin(), text.end(), to);
}

// Within single quotes the shell leaves everything alone but the quote that ends them.
uint8_t *append_quoted(uint8_t *to, std::string_view name) {
    to = append(to, kQuote);
    for (size_t i = 0; i < name.size(); i++) {
        const std::string_view character = name.substr(i, 1);
        to = append(to, character == kQuote ? kQuoteInside : character);
    }
    return append(to, kQuote);
}

} // namespace

ShellCommand::ShellCommand(std::string_view before, std::string_view name, std::string_view after)
    : line_(heap_bytes(before.size() + bytes_of(name.size(), kQuoteInside.size()) +
                       2 * kQuote.size() + after.size() + 1)) {
    if (line_ == nullptr) {
        return;
    }
    uint8_t *to = append(line_.get(), before);
    to = is_plain(name) ? append(to, name) : append_quoted(to, name);
    (void)append(to, after); // the zero behind it is there already
}

const char *ShellCommand::line() const {
    return reinterpret_cast<const char *>(line_.get());
}

int ShellCommand::run() const {
    if (line_ == nullptr) {
        LOG("ap_msg: run a shell command: no memory for its line\n");
        return -1;
    }
    return my_system(line());
}
