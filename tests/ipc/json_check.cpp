#include "json_check.h"

#include <cctype>
#include <string_view>

namespace test {

namespace {

using Members = std::map<std::string, std::string>;

// What is left to read. Each function takes what it names from the front, or says false.
struct Reader {
    std::string_view left;

    bool take(std::string_view token) {
        if (!left.starts_with(token)) {
            return false;
        }
        left.remove_prefix(token.size());
        return true;
    }

    bool escape() {
        if (take("u")) {
            for (int i = 0; i < 4; i++) {
                if (left.empty() || std::isxdigit(static_cast<unsigned char>(left[0])) == 0) {
                    return false;
                }
                left.remove_prefix(1);
            }
            return true;
        }
        const bool known =
            !left.empty() && std::string_view("\"\\/bfnrt").find(left[0]) != std::string_view::npos;
        left.remove_prefix(known ? 1 : 0);
        return known;
    }

    bool string() {
        if (!take("\"")) {
            return false;
        }
        while (!left.empty() && static_cast<unsigned char>(left[0]) >= ' ') {
            if (take("\"")) {
                return true;
            }
            if (take("\\")) {
                if (!escape()) {
                    return false;
                }
            } else {
                left.remove_prefix(1);
            }
        }
        return false;
    }

    bool number() {
        (void)take("-");
        if (take("0")) {
            return left.empty() || std::isdigit(static_cast<unsigned char>(left[0])) == 0;
        }
        const size_t before = left.size();
        while (!left.empty() && std::isdigit(static_cast<unsigned char>(left[0])) != 0) {
            left.remove_prefix(1);
        }
        return left.size() < before;
    }

    bool array() {
        if (!take("[")) {
            return false;
        }
        if (take("]")) {
            return true;
        }
        do {
            if (!value()) {
                return false;
            }
        } while (take(","));
        return take("]");
    }

    bool object(Members &members) {
        if (!take("{")) {
            return false;
        }
        do {
            const std::string_view name = left;
            if (!string()) {
                return false;
            }
            const std::string key(name.substr(1, name.size() - left.size() - 2));
            const std::string_view start = take(":") ? left : std::string_view();
            if (start.empty() || !value() ||
                !members.emplace(key, start.substr(0, start.size() - left.size())).second) {
                return false;
            }
        } while (take(","));
        return take("}");
    }

    bool value() {
        Members ignored;
        if (left.starts_with("{")) {
            return object(ignored);
        }
        if (left.starts_with("[")) {
            return array();
        }
        return left.starts_with("\"") ? string() : take("true") || take("false") || number();
    }
};

} // namespace

std::optional<Members> parse_object(const std::string &text) {
    Members members;
    Reader reader{text};
    if (!reader.object(members) || reader.left != "\n") {
        return std::nullopt;
    }
    return members;
}

} // namespace test
