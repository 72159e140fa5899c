// Numbering, naming and sizing the devices of a trace.

#include "trace_convert/device_registry.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <unistd.h>

#include "trace_convert/field_scan.h"

namespace {

uint64_t pair_code(uint32_t major, uint32_t minor) { return (static_cast<uint64_t>(major) << 32) | minor; }

// Names go into a blank-separated file: blanks and controls become '_'.
std::string clean_name(std::string name) {
  for (char &c : name)
    if (static_cast<unsigned char>(c) <= ' ')
      c = '_';
  if (name.size() > 255)
    name.resize(255);
  return name.empty() ? "_" : name;
}

// The first line of a small file; empty when it cannot be read.
std::string first_line_of(const std::string &path) {
  std::string text;
  if (FILE *f = fopen(path.c_str(), "re")) {
    char buf[256];
    if (fgets(buf, sizeof buf, f) != nullptr)
      text = buf;
    fclose(f);
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  return text;
}

} // namespace

device_registry::device_registry(uint32_t assigned_major, std::string single_name, std::string numeric_prefix)
    : assigned_major_(assigned_major), single_name_(std::move(single_name)),
      numeric_prefix_(std::move(numeric_prefix)) {}

uint32_t device_registry::add(device_entry entry) {
  devices_.push_back(std::move(entry));
  return static_cast<uint32_t>(devices_.size() - 1);
}

uint32_t device_registry::find_or_add(const line_device &device) {
  if (device.has_devno) {
    uint64_t code = pair_code(device.major, device.minor);
    if (last_devno_ && code == last_pair_)
      return last_id_;
    auto it = by_devno_.find(code);
    uint32_t id;
    if (it != by_devno_.end()) {
      id = it->second;
    } else {
      device_entry e;
      e.key = std::to_string(device.major) + "," + std::to_string(device.minor);
      e.major = device.major;
      e.minor = device.minor;
      e.own_pair = true;
      e.name = std::to_string(device.major) + ":" + std::to_string(device.minor);
      id = add(std::move(e));
      by_devno_.emplace(code, id);
    }
    last_devno_ = true;
    last_pair_ = code;
    return last_id_ = id;
  }
  if (!last_devno_ && last_id_ != UINT32_MAX && device.key == last_key_)
    return last_id_;
  std::string_view key = device.key;
  auto it = by_key_.find(key);
  uint32_t id;
  if (it != by_key_.end()) {
    id = it->second;
  } else {
    device_entry e;
    e.key = std::string(key);
    e.major = assigned_major_;
    e.minor = next_minor_++;
    if (key.empty())
      e.name = clean_name(single_name_);
    else
      e.name = clean_name(all_digits(key) ? numeric_prefix_ + e.key : e.key);
    std::string copy = e.key;
    id = add(std::move(e));
    by_key_.emplace(std::move(copy), id);
  }
  last_devno_ = false;
  last_key_.assign(key);
  return last_id_ = id;
}

device_entry *device_registry::find_setting_target(const std::string &device) {
  for (device_entry &e : devices_)
    if (e.key == device || std::to_string(e.major) + ":" + std::to_string(e.minor) == device ||
        e.name == device)
      return &e;
  return nullptr;
}

bool device_registry::finish(const std::vector<device_setting> &names, const std::vector<device_setting> &sizes,
                             const std::string &sysfs_root, std::string *what) {
  std::vector<bool> sized(devices_.size(), false);
  for (const device_setting &s : sizes) {
    device_entry *e = find_setting_target(s.device);
    uint64_t bytes;
    if (e == nullptr) {
      *what = "--size " + s.device + ": no such device in the trace";
      return false;
    }
    if (!parse_u64(s.value, &bytes) || bytes > UINT64_MAX - 511) {
      *what = "--size " + s.device + "=" + s.value + ": not a size in bytes";
      return false;
    }
    e->size = (bytes + 511) / 512;
    sized[static_cast<size_t>(e - devices_.data())] = true;
  }
  for (size_t i = 0; i < devices_.size(); ++i) {
    device_entry &e = devices_[i];
    if (e.own_pair && !sysfs_root.empty()) {
      std::string dir = sysfs_root + "/dev/block/" + std::to_string(e.major) + ":" + std::to_string(e.minor);
      uint64_t sectors;
      if (!sized[i] && parse_u64(first_line_of(dir + "/size"), &sectors))
        e.size = sectors;
      char link[PATH_MAX];
      ssize_t n = readlink(dir.c_str(), link, sizeof link - 1);
      if (n > 0) {
        std::string target(link, static_cast<size_t>(n));
        e.name = clean_name(target.substr(target.rfind('/') + 1));
      }
    }
    if (!sized[i] && e.size < e.end)
      e.size = e.end;
  }
  for (const device_setting &s : names) {
    device_entry *e = find_setting_target(s.device);
    if (e == nullptr) {
      *what = "--name " + s.device + ": no such device in the trace";
      return false;
    }
    e->name = clean_name(s.value);
  }
  return true;
}
