#include "profiler/run_state.h"

uint64_t read_hit;
uint64_t read_miss;
uint64_t region_hit;
uint64_t region_access;
uint64_t casize;
uint64_t num_of_reads;
uint32_t thrshold;
int32_t w_flag;
float rhs;
float rms;
float duration;
const char *mdirname;
float cache_lat;
float disk_lat;
int32_t guniq_id;
volid_ent *volid_list[VOLID_CHAINS];
