// Last of the product's objects: its variables stand before these.
#include "memory/variables.h"
int sim_data_end = 1;
int sim_bss_end;
