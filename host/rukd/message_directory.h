// message_directory.h - where the message sockets are, and who may use them.
#ifndef RUKD_MESSAGE_DIRECTORY_H
#define RUKD_MESSAGE_DIRECTORY_H

/** What APIPC_DIR says, or the message library's own choice. */
const char *message_directory();

/**
 * For a service that runs as root, whose files every request may name: whether root alone may put
 * sockets into the message directory, or another directory into its place. If so, APIPC_DIR is set
 * to its name without symbolic links; if not, standard error tells.
 */
bool message_directory_is_roots();

#endif
