#pragma once
// Saves the daemon's settings and puts them back when the test ends, so that
// a test may set debug, interval, numiter and the writefile flags freely.

#include <cstdint>

#include "daemon/settings.h"

class settings_guard {
public:
  settings_guard()
      : debug_(debug), interval_(interval), numiter_(numiter), workload_file_(workload_file),
        workload_details_(workload_details) {}
  ~settings_guard() {
    debug = debug_;
    interval = interval_;
    numiter = numiter_;
    workload_file = workload_file_;
    workload_details = workload_details_;
  }
  settings_guard(const settings_guard &) = delete;
  settings_guard &operator=(const settings_guard &) = delete;

private:
  int32_t debug_, interval_, numiter_, workload_file_, workload_details_;
};
