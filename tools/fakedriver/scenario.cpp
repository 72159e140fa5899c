#include "fakedriver/scenario.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "fakedriver/trace_samples.h"

const char *const fake_request_names[FAKE_NREQUESTS] = {"start", "info", "update", "accum",
                                                        "map"};
const char *const fake_quirk_names[FAKE_NQUIRKS] = {"short", "grow", "overcount", "unstable"};

namespace {

bool number(const std::string &word, uint64_t *value, uint64_t max = UINT32_MAX) {
  char *end = nullptr;
  errno = 0;
  *value = std::strtoull(word.c_str(), &end, 0);
  return !word.empty() && word[0] != '-' && errno == 0 && *end == '\0' && *value <= max;
}

bool errno_name(const std::string &word, int *err) {
  *err = word == "EPERM"    ? EPERM
         : word == "ENOENT" ? ENOENT
         : word == "EIO"    ? EIO
         : word == "EFAULT" ? EFAULT
                            : 0;
  return *err != 0;
}

// The groups are numbers in host byte order; the last eight are bytes.
bool parse_guid(const std::string &text, uint8_t guid[16]) {
  uint32_t g1 = 0;
  uint16_t g2 = 0, g3 = 0;
  uint8_t *b = guid + 8;
  int end = 0;
  int n = std::sscanf(text.c_str(), "%8x-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx%n", &g1,
                      &g2, &g3, b, b + 1, b + 2, b + 3, b + 4, b + 5, b + 6, b + 7, &end);
  std::memcpy(guid, &g1, 4);
  std::memcpy(guid + 4, &g2, 2);
  std::memcpy(guid + 6, &g3, 2);
  return n == 11 && end == 36;
}

fake_request request_named(const std::string &word) {
  for (int r = 0; r < FAKE_NREQUESTS; r++)
    if (word == fake_request_names[r])
      return static_cast<fake_request>(r);
  return FAKE_NREQUESTS;
}

// Only requests whose answer carries something can be answered wrongly, and
// only those with a size to outgrow can grow or never settle.
bool quirk_applies(fake_request r, fake_quirk_kind k) {
  if (r == FAKE_ACCUM || r == FAKE_MAP)
    return k != FAKE_NQUIRKS;
  return r == FAKE_INFO && (k == FAKE_SHORT || k == FAKE_OVERCOUNT);
}

bool parse_directive(const std::vector<std::string> &w, fake_scenario *sc) {
  const std::string &d = w[0];
  const size_t n = w.size();
  uint64_t v = 0;
  if (d == "info" && (n == 3 || n == 4)) {
    sc->nvols = n == 4 && number(w[3], &v) ? static_cast<int64_t>(v) : -1;
    return number(w[1], &sc->info_word) && number(w[2], &sc->pgbuf_size, UINT64_MAX) &&
           (n == 3 || sc->nvols >= 0);
  }
  if (d == "guid" && n == 2)
    return parse_guid(w[1], sc->guid);
  if (d == "volume" && n == 3) {
    fake_volume &vol = sc->volumes.emplace_back();
    bool ok = number(w[1], &v) && parse_guid(w[2], vol.guid);
    vol.volid = static_cast<uint32_t>(v);
    return ok;
  }
  if (d == "sample") {
    fake_sample &s = sc->samples.emplace_back();
    for (size_t i = 1; i < n; i++) {
      uint64_t volid, region, count;
      size_t a = w[i].find(':'), b = w[i].rfind(':');
      if (a == b || !number(w[i].substr(0, a), &volid) ||
          !number(w[i].substr(a + 1, b - a - 1), &region, UINT64_MAX) ||
          !number(w[i].substr(b + 1), &count))
        return false;
      s.push_back({static_cast<uint32_t>(volid), region, static_cast<uint32_t>(count)});
    }
    return true;
  }
  if (d == "trace" && n == 2) {
    FILE *trace = std::fopen((w[1] + "/out").c_str(), "r");
    if (trace != nullptr) {
      fake_trace_samples(trace, &sc->samples);
      std::fclose(trace);
    }
    return trace != nullptr;
  }
  if (d == "page_entries" && n == 2)
    return number(w[1], &sc->page_entries) && sc->page_entries > 0;
  if (d == "page_slack" && n == 2)
    return number(w[1], &sc->page_slack, 4096);
  if (d == "fail" && n == 4) {
    fake_failure f{request_named(w[1]), 0, 0};
    sc->failures.push_back(f);
    return f.request != FAKE_NREQUESTS && number(w[2], &sc->failures.back().nth) &&
           errno_name(w[3], &sc->failures.back().err);
  }
  if (d == "answer" && n == 4) {
    fake_quirk q{request_named(w[1]), 0, FAKE_NQUIRKS};
    for (int k = 0; k < FAKE_NQUIRKS; k++)
      if (w[3] == fake_quirk_names[k])
        q.kind = static_cast<fake_quirk_kind>(k);
    sc->quirks.push_back(q);
    return quirk_applies(q.request, q.kind) && number(w[2], &sc->quirks.back().nth);
  }
  if (d == "space" && n == 3) {
    fake_space &sp = sc->space.emplace_back(fake_space{0, -1});
    if (w[2] != "free" && number(w[2], &v, INT64_MAX))
      sp.bytes = static_cast<int64_t>(v);
    return number(w[1], &sp.nth) && (w[2] == "free" || sp.bytes >= 0);
  }
  if (d == "filler" && n == 2)
    return !(sc->filler = w[1]).empty();
  return d == "no_device" && n == 2 && errno_name(w[1], &sc->no_device);
}

} // namespace

bool fake_parse_scenario(const std::string &text, fake_scenario *sc, std::string *error) {
  std::istringstream lines(text);
  std::string line;
  for (int lineno = 1; std::getline(lines, line); lineno++) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::vector<std::string> w;
    for (std::string word; words >> word;)
      w.push_back(word);
    if (!w.empty() && !parse_directive(w, sc)) {
      *error = "scenario line " + std::to_string(lineno) + " (" + w[0] + ") malformed";
      return false;
    }
  }
  return true;
}
