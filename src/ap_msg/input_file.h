// input_file.h - the files that commands and requests name: found, opened and measured with care.
#ifndef AP_MSG_INPUT_FILE_H
#define AP_MSG_INPUT_FILE_H

#include "base/owners.h"

/** Whether a file is there, which is logged. */
bool find_file(const char *name);

/**
 * Open a file for reading, or for writing and reading from empty. Null: it cannot be opened, or it
 * is a pipe or a directory (logged): a pipe would wait for its other end, perhaps for ever. errno
 * tells why.
 */
File open_input(const char *name);
File open_output(const char *name);

/** Bytes in a file that stands at its beginning and does so afterwards. -1: they cannot be told. */
int64_t size_of(FILE *file);

/** Close a file that was written. False: not all of it has reached the file (logged). */
bool close_output(File file, const char *name);

#endif
