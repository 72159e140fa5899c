#pragma once
// The daemon's fixed files.

// The volume manager's control device; every kernel request goes through it.
constexpr const char *VOL_CONFIG_DEVICE = "/dev/zr/config";
// The daemon's standard error is appended here.
constexpr const char *VOL_LOG_FILE = "/etc/zr/log/zriostatd.log";
// One big-endian record per collection cycle is appended here.
constexpr const char *VOL_STATS_FILE = "/etc/zr/.zrvm_stats";
// Files the daemon creates: the umask is cleared at start-up, so this is
// their whole mode; no group or other write.
constexpr unsigned VOL_FILE_MODE = 0644;
