// help.h - what --help and --version print.
#ifndef RUK_IPC_HELP_H
#define RUK_IPC_HELP_H

#include <string>

namespace ipc {

std::string help_text();
std::string version_text();

} // namespace ipc

#endif
