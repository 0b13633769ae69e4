// text.h - the outcome for people.
#ifndef RUK_IPC_TEXT_H
#define RUK_IPC_TEXT_H

#include "run.h"

namespace ipc {

/** Print what a command brought on standard output; failures have nothing there. */
void print_text(const Arguments &arguments, const Outcome &outcome);

} // namespace ipc

#endif
