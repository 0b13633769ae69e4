#include "eth_raw/link_counts.h"

LinkCounts g_link_counts[MAX_ETH];
