#include "daemon/settings.h"

#include <cstdlib>
#include <cstring>

const char *progname = "";
int32_t debug = 0;
int32_t interval = 60000;
int32_t numiter = 10;
int32_t workload_file = 1;
int32_t workload_details = 0;
int32_t configdev = -1;

namespace {

// Settings take whatever strtol makes of the text (no syntax or range
// check: "debug=x" gives 0), narrowed to 32 bits.
int32_t setting_value(const char *text) {
  return static_cast<int32_t>(strtol(text, nullptr, 10));
}

bool has_prefix(const char *text, const char *prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

} // namespace

bool vol_apply_setting(const char *setting) {
  if (has_prefix(setting, "debug=")) {
    debug = setting_value(setting + 6);
  } else if (has_prefix(setting, "interval=")) {
    // Seconds on the command line, milliseconds inside; the product is a
    // 32-bit multiplication that wraps rather than overflows.
    uint32_t seconds = static_cast<uint32_t>(setting_value(setting + 9));
    interval = static_cast<int32_t>(seconds * 1000u);
  } else if (has_prefix(setting, "numiter=")) {
    numiter = setting_value(setting + 8);
  } else if (has_prefix(setting, "writefile")) {
    // The tenth character (normally '=') is skipped unread, so
    // "writefile:no" works too.  Anything unrecognised changes nothing.
    const char *choice = strlen(setting) >= 10 ? setting + 10 : "";
    if (strcmp(choice, "no") == 0) {
      workload_file = 0;
      workload_details = 0;
    } else if (strcmp(choice, "details") == 0) {
      workload_file = 1;
      workload_details = 1;
    } else if (strcmp(choice, "header") == 0) {
      workload_file = 1;
      workload_details = 0;
    }
  } else {
    return false;
  }
  return true;
}
