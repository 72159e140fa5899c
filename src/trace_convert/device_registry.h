#pragma once
// The devices of a converted trace: each gets a major/minor pair for the
// profiler (kept when the trace has one, assigned otherwise), a name and a
// size in 512-byte sectors for the device map.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "trace_convert/parsed_line.h"

struct device_entry {
  std::string key;    // as the trace names it: "8,16", "1058", "hm_0"
  uint32_t major = 0;
  uint32_t minor = 0;
  bool own_pair = false; // the pair comes from the trace
  std::string name;   // no blanks
  uint64_t end = 0;   // one past the highest sector read
  uint64_t size = 0;  // sectors, set by finish()
};

// An override given on the command line as DEV=VALUE, DEV being the
// device's key in the trace, its "MAJ:MIN" or its name.
struct device_setting {
  std::string device;
  std::string value;
};

class device_registry {
public:
  // Devices without a pair of their own get (assigned_major, 0, 1, ...) in
  // order of first appearance.  A trace without a device column is one
  // device named `single_name`.  `numeric_prefix` goes before keys that are
  // bare numbers ("vol" makes "1058" the name "vol1058").
  device_registry(uint32_t assigned_major, std::string single_name, std::string numeric_prefix);

  // The index of the request's device, adding it when first met.
  uint32_t find_or_add(const line_device &device);

  // Records that sectors [start, start + length) of device `id` were read.
  void note_read(uint32_t id, uint64_t start, uint64_t length) {
    uint64_t end = start + length;
    if (end > devices_[id].end)
      devices_[id].end = end;
  }

  // Applies --name and --size (size in bytes, rounded up to sectors) and
  // sizes the rest: a device with its own pair is looked up under
  // sysfs_root ("" to skip) in dev/block/MAJ:MIN (its "size" file, in
  // sectors, and the link's name); any device is at least as large as its
  // highest sector read.  Returns false with *what when a setting names no
  // device or holds a bad size.
  bool finish(const std::vector<device_setting> &names, const std::vector<device_setting> &sizes,
              const std::string &sysfs_root, std::string *what);

  const std::vector<device_entry> &devices() const { return devices_; }

private:
  uint32_t add(device_entry entry);
  device_entry *find_setting_target(const std::string &device);

  uint32_t assigned_major_;
  uint32_t next_minor_ = 0;
  std::string single_name_;
  std::string numeric_prefix_;
  std::vector<device_entry> devices_;
  std::unordered_map<uint64_t, uint32_t> by_devno_;
  // Looked up by string_view, without making a string for every line.
  struct key_hash {
    using is_transparent = void;
    size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
  };
  std::unordered_map<std::string, uint32_t, key_hash, std::equal_to<>> by_key_;
  // The last device met: traces tend to name the same one many times in a row.
  bool last_devno_ = false;
  uint64_t last_pair_ = UINT64_MAX;
  std::string last_key_;
  uint32_t last_id_ = UINT32_MAX;
};
