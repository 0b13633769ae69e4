// variables.h - where the product's variables begin and end. The linker keeps the objects' order;
// reset_product_memory makes sure that it did.
#ifndef SIMULATION_VARIABLES_H
#define SIMULATION_VARIABLES_H

extern int sim_data_begin;
extern int sim_bss_begin;
extern int sim_data_end;
extern int sim_bss_end;

#endif
