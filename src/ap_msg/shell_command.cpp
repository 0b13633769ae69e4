#include "ap_msg/shell_command.h"

namespace {

constexpr std::string_view kPlainCharacters = "abcdefghijklmnopqrstuvwxyz"
                                              "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                              "0123456789._/+-=@%,:";

bool is_plain(std::string_view name) {
    return !name.empty() && name.find_first_not_of(kPlainCharacters) == std::string_view::npos;
}

// Within single quotes the shell leaves everything alone but the quote that ends them.
void append_quoted(std::string &line, std::string_view name) {
    line += '\'';
    for (const char character : name) {
        if (character == '\'') {
            line += R"('\'')";
        } else {
            line += character;
        }
    }
    line += '\'';
}

} // namespace

std::string shell_command(std::string_view before, std::string_view name, std::string_view after) {
    std::string line(before);
    if (is_plain(name)) {
        line += name;
    } else {
        append_quoted(line, name);
    }
    line += after;
    return line;
}
