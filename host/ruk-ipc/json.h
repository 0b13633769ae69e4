// json.h - the outcome for scripts: one JSON object on one line.
#ifndef RUK_IPC_JSON_H
#define RUK_IPC_JSON_H

#include "run.h"

#include <string>
#include <string_view>

namespace ipc {

/** A string literal; bytes that are no UTF-8 become U+FFFD. */
std::string json_string(std::string_view text);

/** The object, with its line end. `arguments.command` may be null after a wrong command line. */
std::string json_object(const Arguments &arguments, const Outcome &outcome);

} // namespace ipc

#endif
