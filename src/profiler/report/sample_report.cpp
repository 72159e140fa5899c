#include "profiler/report/sample_report.h"

#include <cstdlib>
#include <cstring>

#include "common/strlcpy.h"
#include "common/xmalloc.h"
#include "profiler/read/device_table.h"
#include "profiler/run_state.h"

namespace {

constexpr size_t MAP_LINE_BUF = 256;
constexpr uint32_t FIRST_NAME_ROOM = 100;

// Appends an exact copy of name.  False when memory runs out (message
// printed, list unchanged).
bool append_name(device_name_list *list, const char *name) {
  if (list->count == list->room) {
    uint32_t room = list->room == 0 ? FIRST_NAME_ROOM : list->room * 2;
    void *grown = zrvmutil_xrealloc(list->names, static_cast<uint64_t>(room) * sizeof(char *));
    if (grown == nullptr)
      return false;
    list->names = static_cast<char **>(grown);
    list->room = room;
  }
  size_t bytes = strlen(name) + 1;
  auto *copy = static_cast<char *>(zrvmutil_xmalloc(bytes));
  if (copy == nullptr)
    return false;
  memcpy(copy, name, bytes);
  list->names[list->count++] = copy;
  return true;
}

// Without a map every device is shown by its numbers.
void list_devices_by_number(device_name_list *list) {
  char name[VOL_NAME_BUF];
  for (int32_t i = 0; i < guniq_id; i++) {
    int32_t major = 0;
    int32_t minor = 0;
    (void)vol_get_maj_minor(i, &major, &minor, name);
    snprintf(name, sizeof(name), "%d %d", major, minor);
    append_name(list, name);
  }
}

} // namespace

void vol_free_device_names(device_name_list *list) {
  for (uint32_t i = 0; i < list->count; i++)
    free(list->names[i]);
  free(list->names);
  *list = device_name_list{};
}

void vol_read_device_map(FILE *map, device_name_list *list) {
  char line[MAP_LINE_BUF];
  char name[VOL_NAME_BUF] = "";
  int major = 0;
  int minor = 0;
  unsigned long long size = 0;
  while (fgets(line, sizeof(line), map) != nullptr) {
    // The conversion count is not examined: a piece without fields repeats
    // the previous device.  The width keeps a name inside its buffer.
    (void)sscanf(line, "%255s %d %d %llu", name, &major, &minor, &size);
    volid_ent *e = vol_find_device(major, minor);
    if (e == nullptr)
      e = vol_new_device(major, minor);
    // A device named twice keeps the later name.
    (void)vol_set_name(&e->name, name);
    e->size = size;
    append_name(list, name);
  }
}

void vol_write_sample_info(FILE *out, const char *map_path) {
  device_name_list list{};
  FILE *map = fopen(map_path, "r");
  if (map != nullptr) {
    vol_read_device_map(map, &list);
    fclose(map);
  } else {
    list_devices_by_number(&list);
  }

  fprintf(out, "\n-------------------\n");
  fprintf(out, "KL LoadAdvisor tool\n");
  fprintf(out, "-------------------\n\n");
  fprintf(out, "Details of Sampled Data:\n");
  fprintf(out, "------------------------\n");
  fprintf(out, "Duration\t\t: %.2f Hours\n", static_cast<double>(duration));
  fprintf(out, "No. Of Reads\t\t: %llu\n", static_cast<unsigned long long>(num_of_reads));
  fprintf(out, "Caching device latency\t: %.2f ms\n", static_cast<double>(cache_lat));
  fprintf(out, "Data device latency\t: %.2f ms\n", static_cast<double>(disk_lat));
  fprintf(out, "No. Of Devices\t\t: %d\n", static_cast<int>(list.count));
  fprintf(out, "Devices\t\t\t: ");
  for (uint32_t i = 0; i < list.count; i++)
    fprintf(out, i + 1 < list.count ? "%s, " : "%s", list.names[i]);
  vol_free_device_names(&list);
}

void vol_print_sample_info(const char *map_path) {
  vol_write_sample_info(stdout, map_path);
}

int vol_get_maj_minor(int32_t id, int32_t *major, int32_t *minor, char *name) {
  for (volid_ent *chain : volid_list) {
    for (volid_ent *e = chain; e != nullptr; e = e->next) {
      if (e->uniq_id != id)
        continue;
      *major = e->major;
      *minor = e->minor;
      if (e->name != nullptr)
        vol_strlcpy(name, e->name, VOL_NAME_BUF);
      return 1;
    }
  }
  return 0;
}
