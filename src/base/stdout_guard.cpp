#include "base/stdout_guard.h"

constinit thread_local int t_stdout_holds = 0;
