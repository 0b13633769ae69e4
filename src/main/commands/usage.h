// usage.h - the help that the tool prints when it cannot tell what is wanted.
#ifndef MAIN_COMMANDS_USAGE_H
#define MAIN_COMMANDS_USAGE_H

/** Print the nine usage lines on standard output. */
void usage();

#endif
