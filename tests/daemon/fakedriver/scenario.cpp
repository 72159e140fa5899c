#include "fakedriver/scenario.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "fakedriver/trace_samples.h"

const char *const fake_request_names[FAKE_NREQUESTS] = {"start", "info", "update", "accum",
                                                        "map"};

namespace {

bool parse_number(const std::string &word, uint64_t *value) {
  if (word.empty() || word[0] == '-')
    return false;
  char *end = nullptr;
  errno = 0;
  unsigned long long v = std::strtoull(word.c_str(), &end, 0);
  if (errno != 0 || *end != '\0')
    return false;
  *value = v;
  return true;
}

bool parse_u32(const std::string &word, uint32_t *value) {
  uint64_t v;
  if (!parse_number(word, &v) || v > UINT32_MAX)
    return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

bool parse_errno(const std::string &word, int *err) {
  static const struct {
    const char *name;
    int value;
  } names[] = {{"EPERM", EPERM}, {"ENOENT", ENOENT}, {"EIO", EIO},       {"ENOMEM", ENOMEM},
               {"EFAULT", EFAULT}, {"EBUSY", EBUSY}, {"EINVAL", EINVAL}, {"EAGAIN", EAGAIN},
               {"ENODEV", ENODEV}, {"EACCES", EACCES}};
  for (const auto &n : names) {
    if (word == n.name) {
      *err = n.value;
      return true;
    }
  }
  uint32_t v;
  if (!parse_u32(word, &v) || v == 0 || v > 255)
    return false;
  *err = static_cast<int>(v);
  return true;
}

// "<volid>:<region>:<count>"
bool parse_entry(const std::string &word, fake_entry *e) {
  size_t a = word.find(':');
  size_t b = a == std::string::npos ? a : word.find(':', a + 1);
  if (b == std::string::npos)
    return false;
  uint64_t region;
  if (!parse_u32(word.substr(0, a), &e->volid) ||
      !parse_number(word.substr(a + 1, b - a - 1), &region) ||
      !parse_u32(word.substr(b + 1), &e->count))
    return false;
  e->region = region;
  return true;
}

bool read_trace(const std::string &dir, std::vector<fake_sample> *samples) {
  FILE *trace = std::fopen((dir + "/out").c_str(), "r");
  if (trace == nullptr)
    return false;
  fake_trace_samples(trace, samples);
  std::fclose(trace);
  return true;
}

// One directive; false with *why set when it is malformed.
bool parse_directive(const std::vector<std::string> &w, fake_scenario *sc, std::string *why) {
  const std::string &d = w[0];
  size_t n = w.size();
  if (d == "info" && (n == 3 || n == 4)) {
    uint64_t nvols = 0;
    if (!parse_u32(w[1], &sc->info_word) || !parse_number(w[2], &sc->pgbuf_size) ||
        (n == 4 && (!parse_number(w[3], &nvols) || nvols > UINT32_MAX)))
      return false;
    sc->nvols = n == 4 ? static_cast<int64_t>(nvols) : -1;
    return true;
  }
  if (d == "guid" && n == 2)
    return fake_parse_guid(w[1], sc->guid);
  if (d == "volume" && n == 3) {
    fake_volume v;
    if (!parse_u32(w[1], &v.volid) || !fake_parse_guid(w[2], v.guid))
      return false;
    sc->volumes.push_back(v);
    return true;
  }
  if (d == "sample") {
    fake_sample s;
    for (size_t i = 1; i < n; i++) {
      fake_entry e;
      if (!parse_entry(w[i], &e))
        return false;
      s.push_back(e);
    }
    sc->samples.push_back(std::move(s));
    return true;
  }
  if (d == "trace" && n == 2) {
    if (!read_trace(w[1], &sc->samples)) {
      *why = "cannot read " + w[1] + "/out";
      return false;
    }
    return true;
  }
  if (d == "page_entries" && n == 2)
    return parse_u32(w[1], &sc->page_entries) && sc->page_entries > 0;
  if (d == "page_slack" && n == 2)
    return parse_u32(w[1], &sc->page_slack) && sc->page_slack < 4096;
  if (d == "creeping_need" && n == 1) {
    sc->creeping_need = true;
    return true;
  }
  if (d == "fail" && n == 4) {
    fake_failure f;
    for (int r = 0; r < FAKE_NREQUESTS; r++) {
      if (w[1] == fake_request_names[r]) {
        f.request = static_cast<fake_request>(r);
        if (!parse_u32(w[2], &f.nth) || f.nth == 0 || !parse_errno(w[3], &f.err))
          return false;
        sc->failures.push_back(f);
        return true;
      }
    }
    return false;
  }
  if (d == "no_device" && n == 2)
    return parse_errno(w[1], &sc->no_device);
  *why = "unknown directive or wrong number of words";
  return false;
}

} // namespace

bool fake_parse_guid(const std::string &text, uint8_t guid[16]) {
  std::string t = text;
  if (t.size() >= 2 && t.front() == '{' && t.back() == '}')
    t = t.substr(1, t.size() - 2);
  static const size_t dashes[] = {8, 13, 18, 23};
  if (t.size() != 36)
    return false;
  std::string hex;
  for (size_t i = 0; i < t.size(); i++) {
    bool dash_here = i == dashes[0] || i == dashes[1] || i == dashes[2] || i == dashes[3];
    if (dash_here != (t[i] == '-'))
      return false;
    if (!dash_here)
      hex += t[i];
  }
  uint8_t b[16];
  for (int i = 0; i < 16; i++) {
    char pair[3] = {hex[2 * i], hex[2 * i + 1], '\0'};
    char *end = nullptr;
    unsigned long v = std::strtoul(pair, &end, 16);
    if (*end != '\0' || pair[0] == '+' || pair[0] == '-')
      return false;
    b[i] = static_cast<uint8_t>(v);
  }
  // The groups are numbers in host byte order; the last eight are bytes.
  uint32_t g1 = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
  uint16_t g2 = static_cast<uint16_t>(b[4] << 8 | b[5]);
  uint16_t g3 = static_cast<uint16_t>(b[6] << 8 | b[7]);
  std::memcpy(guid, &g1, 4);
  std::memcpy(guid + 4, &g2, 2);
  std::memcpy(guid + 6, &g3, 2);
  std::memcpy(guid + 8, b + 8, 8);
  return true;
}

bool fake_parse_scenario(const std::string &text, fake_scenario *sc, std::string *error) {
  std::istringstream lines(text);
  std::string line;
  for (int lineno = 1; std::getline(lines, line); lineno++) {
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string word; words >> word;)
      w.push_back(word);
    if (w.empty())
      continue;
    std::string why = "malformed";
    if (!parse_directive(w, sc, &why)) {
      *error = "scenario line " + std::to_string(lineno) + " (" + w[0] + "): " + why;
      return false;
    }
  }
  return true;
}
