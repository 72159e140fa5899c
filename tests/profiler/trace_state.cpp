#include "profiler/trace_state.h"

#include <cstdlib>

#include "profiler/read/trace_input.h"
#include "profiler/replay/literal_replay.h"
#include "profiler/replay/replay.h"
#include "profiler/run_state.h"

void reset_trace_state() {
  vol_use_literal_replay(false);
  vol_drop_compact_trace();
  vol_stathash_reset(&cache_area);
  vol_stathash_reset(&access_tbl);
  cold_ent = cold_list{};
  vol_forget_trace_input();
  for (uint32_t u = 0; u < vwload_slots; u++) {
    if (vmaxwload_list[u] != nullptr) {
      free(vmaxwload_list[u]->name);
      free(vmaxwload_list[u]);
      vmaxwload_list[u] = nullptr;
    }
  }
  duration = 0.0f;
  casize = 0;
  w_flag = 0;
  cache_lat = 0.0f;
  disk_lat = 0.0f;
  read_hit = read_miss = 0;
  rhs = rms = 0.0f;
  thrshold = 0;
}

FILE *text_file(const std::string &text) {
  FILE *f = tmpfile();
  if (f == nullptr)
    abort();
  if (!text.empty() && fwrite(text.data(), 1, text.size(), f) != text.size())
    abort();
  rewind(f);
  return f;
}
