#include "profiler/trace_state.h"

#include <cstdlib>

#include "profiler/lru_replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_input.h"

void reset_trace_state() {
  vol_drop_replay_trace();
  for (volid_ent *&chain : volid_list) {
    while (chain != nullptr) {
      volid_ent *next = chain->next;
      free(chain->name);
      free(chain);
      chain = next;
    }
  }
  while (wrkload_list != nullptr) {
    wrkload_node *next = wrkload_list->next;
    free(wrkload_list);
    wrkload_list = next;
  }
  wrkload_tail = nullptr;
  for (uint32_t u = 0; u < vwload_slots; u++) {
    while (vwload_list[u] != nullptr) {
      vwload_ent *next = vwload_list[u]->next;
      free(vwload_list[u]->name);
      free(vwload_list[u]);
      vwload_list[u] = next;
    }
    if (vmaxwload_list[u] != nullptr) {
      free(vmaxwload_list[u]->name);
      free(vmaxwload_list[u]);
      vmaxwload_list[u] = nullptr;
    }
  }
  guniq_id = 0;
  num_of_reads = 0;
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
