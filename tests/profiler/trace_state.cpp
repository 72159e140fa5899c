#include "profiler/trace_state.h"

#include <cstdlib>

#include "profiler/lru_replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"

void reset_trace_state() {
  vol_drop_replay_trace();
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
