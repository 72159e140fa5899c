#pragma once
// The substitute driver's side of the five statistics requests: it answers
// each one from the scenario and describes it in one line of the request
// log, "<request> key=value ...", ending in " fail=<errno>" when the request
// fails:
//   start flag=F
//   info
//   update wl_count=W threshold=T reserved=R no_workload=F
//   accum offer=S need=N pages=P     (S < N: pages=0, the daemon must retry)
//   map capacity=C count=V done=D    (asks=A when it wants a bigger array)
// A request answered wrongly on purpose (scenario "answer") carries
// " answer=<kind>" before its fields.
// A guid that the daemon sends back and that differs from the scenario's,
// or a page area that is not where the header says, fails the request with
// EINVAL and adds " bad_guid" or " bad_area" to the line.

#include <cstdint>
#include <string>

#include "fakedriver/scenario.h"

struct fake_driver {
  fake_scenario sc;
  uint64_t received[FAKE_NREQUESTS] = {}; // requests of each kind so far
  size_t next_sample = 0;                 // next answer with data
  uint32_t maps_answered = 0;             // complete map answers with volumes
};

// Answers sub-command `command` with argument record `arg`.  Returns 0 on
// success, or the errno of the failure; *line receives the log line.
int fake_answer(fake_driver *d, int32_t command, void *arg, std::string *line);
