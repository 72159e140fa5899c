#pragma once
// From (device key, region) to the dense id that the compact trace form
// gives each key, with each key's accesses counted in the trace input's
// current interval, so that each region access costs one lookup.
//
// A key is packed into one word when it fits (the region below 2^44, the
// device key below 2^20, which every real device's regions do) and found
// by open addressing in 16-byte slots, four to a cache line.  A key that
// does not fit (a start block past 2^51) goes to a second table of 24-byte
// slots.  Both live in kernel-zeroed pages, where an all-zero slot is empty.

#include <cstdint>
#include <vector>

#include "common/zeroed_pages.h"

struct wide_region_key {
  uint64_t region;
  uint32_t device;
  bool operator==(const wide_region_key &o) const { return region == o.region && device == o.device; }
};

inline uint64_t region_key_hash(uint64_t packed) {
  const uint64_t h = packed * 0x9E3779B97F4A7C15ull;
  return h ^ (h >> 29);
}
inline uint64_t region_key_hash(const wide_region_key &k) {
  return region_key_hash(k.region ^ (uint64_t{k.device} << 40));
}

// A reference to a key's slot: the slot's number, with REGION_KEY_WIDE set
// for the second table.
constexpr uint64_t REGION_KEY_WIDE = uint64_t{1} << 63;
constexpr uint64_t REGION_KEY_NONE = UINT64_MAX; // no slot could be had

// One open-addressing table, grown by doubling at seven eighths full.  A
// key's run of slots still seldom leaves its cache line or the next, and a
// table half the size takes half the pages, each of which the kernel must
// clear before the first use.
template <class Key, uint64_t TAG>
struct open_key_table {
  struct slot {
    Key key;
    uint32_t id_plus_one; // 0: empty; the top bit is the owner's
    uint32_t count;
  };
  static constexpr uint64_t FULL_NUMERATOR = 7;
  static constexpr uint64_t FULL_DENOMINATOR = 8;
  zeroed_array<slot> slots; // a power of two long once anything was added
  uint64_t used = 0;

  uint64_t probe(const Key &key) const {
    const uint64_t mask = slots.size() - 1;
    uint64_t i = region_key_hash(key) & mask;
    while (slots[i].id_plus_one != 0 && !(slots[i].key == key))
      i = (i + 1) & mask;
    return i;
  }
  // The reference of `key`, or REGION_KEY_NONE when it is not in the table.
  uint64_t find(const Key &key) const {
    if (slots.size() == 0)
      return REGION_KEY_NONE;
    const uint64_t i = probe(key);
    return slots[i].id_plus_one == 0 ? REGION_KEY_NONE : i | TAG;
  }
  // The reference of `key`, a new key taking the id `fresh` (*added set);
  // REGION_KEY_NONE when the table could not grow.  The references to this
  // table in *refs are kept right when it grows.
  uint64_t find_or_add(const Key &key, uint32_t fresh, bool *added, std::vector<uint64_t> *refs) {
    if ((used + 1) * FULL_DENOMINATOR > slots.size() * FULL_NUMERATOR && !grow(refs))
      return REGION_KEY_NONE;
    const uint64_t i = probe(key);
    *added = slots[i].id_plus_one == 0;
    if (*added) {
      slots[i] = slot{key, fresh + 1, 0};
      used++;
    }
    return i | TAG;
  }
  // Sizes the empty table for `keys` keys without growing.  Keys taken
  // from another table in its slots' order must go into a table of their
  // final size: a smaller one fills with them in runs of neighbouring
  // slots, and its probes grow long.
  bool reserve(uint64_t keys) {
    uint64_t size = uint64_t{1} << 12;
    while (size * FULL_NUMERATOR < keys * FULL_DENOMINATOR)
      size *= 2;
    return slots.map(size);
  }
  bool grow(std::vector<uint64_t> *refs) {
    zeroed_array<slot> old;
    if (!old.map(slots.size() == 0 ? uint64_t{1} << 12 : slots.size() * 2))
      return false;
    old.swap(slots);
    for (const slot &s : old) {
      if (s.id_plus_one != 0)
        slots[probe(s.key)] = s;
    }
    for (uint64_t &r : *refs) {
      if ((r & REGION_KEY_WIDE) == TAG)
        r = probe(old[r & ~REGION_KEY_WIDE].key) | TAG;
    }
    return true;
  }
};

class region_key_table {
public:
  static constexpr unsigned DEVICE_BITS = 20;
  static constexpr uint32_t COUNTED = 0x80000000; // in id_plus_one: counted this interval

  // The reference of (device, region), a new key taking the id `fresh`
  // (*added set); REGION_KEY_NONE when a table could not grow.
  uint64_t find_or_add(uint32_t device, uint64_t region, uint32_t fresh, bool *added) {
    if (region < PACKED_REGIONS && device < PACKED_DEVICES)
      return packed_.find_or_add(pack(device, region), fresh, added, &counted);
    return wide_.find_or_add(wide_region_key{region, device}, fresh, added, &counted);
  }
  // The reference of (device, region); REGION_KEY_NONE when not in the table.
  uint64_t find(uint32_t device, uint64_t region) const {
    if (region < PACKED_REGIONS && device < PACKED_DEVICES)
      return packed_.find(pack(device, region));
    return wide_.find(wide_region_key{region, device});
  }
  // Sizes the empty table of packed keys for `keys` keys; false, the table
  // left empty, when the memory cannot be had.
  bool reserve(uint64_t keys) { return packed_.reserve(keys); }
  // Sizes the empty tables for the keys of `other` and `more` keys besides,
  // whose device keys may change.  False when the memory cannot be had.
  bool reserve_for(const region_key_table &other, uint64_t more) {
    return packed_.reserve(other.keys() + more) && wide_.reserve(other.wide_.used);
  }
  // Starts fetching the slot of a key that packs.
  void prefetch(uint32_t device, uint64_t region) const {
    if (packed_.slots.size() != 0)
      __builtin_prefetch(&packed_.slots[region_key_hash(pack(device, region)) & (packed_.slots.size() - 1)], 1);
  }
  void prefetch(uint64_t ref) const {
    if ((ref & REGION_KEY_WIDE) == 0)
      __builtin_prefetch(&packed_.slots[ref]);
  }
  // The slot's id + 1 (with COUNTED) and count.
  uint32_t &id_plus_one(uint64_t ref) {
    return (ref & REGION_KEY_WIDE) == 0 ? packed_.slots[ref].id_plus_one
                                        : wide_.slots[ref & ~REGION_KEY_WIDE].id_plus_one;
  }
  uint32_t &count(uint64_t ref) {
    return (ref & REGION_KEY_WIDE) == 0 ? packed_.slots[ref].count : wide_.slots[ref & ~REGION_KEY_WIDE].count;
  }
  uint32_t device(uint64_t ref) const {
    return (ref & REGION_KEY_WIDE) == 0 ? static_cast<uint32_t>(packed_.slots[ref].key & (PACKED_DEVICES - 1))
                                        : wide_.slots[ref & ~REGION_KEY_WIDE].key.device;
  }
  uint64_t region(uint64_t ref) const {
    return (ref & REGION_KEY_WIDE) == 0 ? packed_.slots[ref].key >> DEVICE_BITS
                                        : wide_.slots[ref & ~REGION_KEY_WIDE].key.region;
  }
  // Calls f(device, region, id) for every key.
  template <class F>
  void for_each_key(F f) const {
    visit_keys(f, [](uint64_t) {});
  }
  // The same, giving the table's pages back as it goes, so that its memory
  // shrinks while the caller's grows; the table is of no use afterwards.
  template <class F>
  void take_each_key(F f) {
    constexpr uint64_t STEP = ZEROED_HUGE_PAGE / sizeof(packed_.slots[0]);
    visit_keys(f, [this](uint64_t passed) {
      if (passed % STEP == 0)
        packed_.slots.drop_before(passed);
    });
  }
  uint64_t keys() const { return packed_.used + wide_.used; }

  std::vector<uint64_t> counted; // references counted in the current interval, in order

private:
  // f for every key, the packed ones first; passed(n) after the first n
  // packed slots.
  template <class F, class Passed>
  void visit_keys(F f, Passed passed) const {
    for (uint64_t i = 0; i < packed_.slots.size(); i++) {
      if (packed_.slots[i].id_plus_one != 0)
        f(device(i), region(i), (packed_.slots[i].id_plus_one & ~COUNTED) - 1);
      passed(i + 1);
    }
    for (const auto &s : wide_.slots) {
      if (s.id_plus_one != 0)
        f(s.key.device, s.key.region, (s.id_plus_one & ~COUNTED) - 1);
    }
  }

  static constexpr uint64_t PACKED_REGIONS = uint64_t{1} << (64 - DEVICE_BITS);
  static constexpr uint64_t PACKED_DEVICES = uint64_t{1} << DEVICE_BITS;
  static uint64_t pack(uint32_t device, uint64_t region) { return region << DEVICE_BITS | device; }

  open_key_table<uint64_t, 0> packed_;
  open_key_table<wide_region_key, REGION_KEY_WIDE> wide_;
};
