// json_check.h - a strict reader of the one JSON object that a run prints.
#ifndef RUK_TESTS_IPC_JSON_CHECK_H
#define RUK_TESTS_IPC_JSON_CHECK_H

#include <map>
#include <optional>
#include <string>

namespace test {

/**
 * The members of the object that is the whole text, which ends with one line end. Values as they
 * stand there, strings with their quotes. Nothing when the text is no such object or repeats a
 * name.
 */
std::optional<std::map<std::string, std::string>> parse_object(const std::string &text);

} // namespace test

#endif
