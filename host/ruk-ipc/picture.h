// picture.h - pictures that the service would refuse, which it only logs: nobody would learn of it.
#ifndef RUK_IPC_PICTURE_H
#define RUK_IPC_PICTURE_H

#include "commands.h"

#include <string>

namespace ipc {

/** Empty, or the complaint that get-picture would need a larger file than there can be. */
std::string check_picture_size(const CommandRow &command, uint32_t width, uint32_t height);

/** Empty, or why the file of put-picture does not hold so many pixels. */
std::string check_picture_file(const std::string &file, uint32_t width, uint32_t height);

} // namespace ipc

#endif
