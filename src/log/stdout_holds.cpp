// Apart from the log: programs that only print link it without one.
#include "log/stdout_holds.h"

constinit thread_local int t_stdout_holds = 0;
