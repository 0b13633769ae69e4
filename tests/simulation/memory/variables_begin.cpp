// First of the product's objects: its variables follow.
#include "memory/variables.h"
int sim_data_begin = 1;
int sim_bss_begin;
