#pragma once
// An in-process stand-in for the kernel driver: replaces vol_driver_ioctl for
// the life of the object and answers each sub-command from a handler the
// test sets.  Every envelope is checked for the request code and recorded.

#include <cstdint>
#include <functional>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/kernel_requests.h"

// A handler returns 0, or sets errno and returns -1.
using request_handler = std::function<int(void *arg)>;

class request_fake {
public:
  request_fake();
  ~request_fake();
  request_fake(const request_fake &) = delete;
  request_fake &operator=(const request_fake &) = delete;

  // The handler for one sub-command; an unset one fails with ENOTTY.
  void on(int32_t subcommand, request_handler handler);
  // Sub-commands in the order they arrived.
  const std::vector<int32_t> &calls() const { return calls_; }
  int count(int32_t subcommand) const;
  // Envelopes whose request code or descriptor was not the expected one.
  int bad_envelopes() const { return bad_envelopes_; }

private:
  static int dispatch(int fd, unsigned long request, vol_ioctl_envelope *env);
  request_handler handlers_[6];
  std::vector<int32_t> calls_;
  int bad_envelopes_ = 0;
  vol_driver_ioctl_fn saved_hook_;
  int32_t saved_configdev_;
};

// Builds the page area of one VOL_ACCUM_IOSTAT answer.
struct page_entry_spec {
  uint32_t volid;
  uint32_t acc_cnt;
  uint64_t region;
};

class page_area {
public:
  // Appends a page holding `entries`, `pad` bytes longer than its entries
  // need (the size field says so); the next page starts at that size
  // rounded up to 8, as the driver lays them out.
  void add_page(const std::vector<page_entry_spec> &entries, uint32_t max = 0, uint32_t pad = 0);
  const std::vector<unsigned char> &bytes() const { return bytes_; }
  // For answers a well-behaved driver would never give.
  std::vector<unsigned char> &raw() { return bytes_; }
  uint32_t pages() const { return pages_; }

private:
  std::vector<unsigned char> bytes_;
  uint32_t pages_ = 0;
};

// A VOL_ACCUM_IOSTAT handler that answers with `area`: when the offered
// buffer is smaller than the area it only states the size needed, otherwise
// it copies the pages in.
// Each offered size is appended to *offered when given.
request_handler accum_answer(page_area area, std::vector<uint64_t> *offered = nullptr);

// A VOL_IOSTAT_INFO handler answering with `info`.
request_handler info_answer(const iostat_info &info);
