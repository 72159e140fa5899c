#include "daemon/request_fake.h"

#include <cerrno>
#include <cstring>

#include "daemon/settings.h"

namespace {
request_fake *current = nullptr;
constexpr int32_t FAKE_CONFIGDEV = 1000;
} // namespace

request_fake::request_fake() : saved_hook_(vol_driver_ioctl), saved_configdev_(configdev) {
  current = this;
  vol_driver_ioctl = dispatch;
  configdev = FAKE_CONFIGDEV;
}

request_fake::~request_fake() {
  vol_driver_ioctl = saved_hook_;
  configdev = saved_configdev_;
  current = nullptr;
}

void request_fake::on(int32_t subcommand, request_handler handler) {
  handlers_[subcommand] = std::move(handler);
}

int request_fake::count(int32_t subcommand) const {
  int n = 0;
  for (int32_t c : calls_)
    n += c == subcommand;
  return n;
}

int request_fake::dispatch(int fd, unsigned long request, vol_ioctl_envelope *env) {
  request_fake *self = current;
  if (fd != FAKE_CONFIGDEV || request != VOL_IOCTL_CMD)
    self->bad_envelopes_++;
  self->calls_.push_back(env->command);
  if (env->command < 1 || env->command > 5 || !self->handlers_[env->command]) {
    errno = ENOTTY;
    return -1;
  }
  return self->handlers_[env->command](reinterpret_cast<void *>(env->arg));
}

void page_area::add_page(const std::vector<page_entry_spec> &entries, uint32_t max, uint32_t pad) {
  uint64_t size = sizeof(vol_page_hdr) + entries.size() * sizeof(vol_page_ent) + pad;
  uint64_t start = bytes_.size();
  bytes_.resize(start + ((size + 7) & ~uint64_t{7}), 0);

  vol_page_hdr hdr{};
  hdr.size = static_cast<uint32_t>(size);
  hdr.max = max;
  hdr.nument = static_cast<uint32_t>(entries.size());
  std::memcpy(&bytes_[start], &hdr, sizeof hdr);
  uint64_t at = start + sizeof hdr;
  for (const page_entry_spec &e : entries) {
    vol_page_ent pe{};
    pe.volid = e.volid;
    pe.acc_cnt = e.acc_cnt;
    pe.region = e.region;
    std::memcpy(&bytes_[at], &pe, sizeof pe);
    at += sizeof pe;
  }
  pages_++;
}

request_handler accum_answer(page_area area, std::vector<uint64_t> *offered) {
  return [area, offered](void *arg) {
    auto *buf = static_cast<vol_pgbuf_hdr *>(arg);
    if (offered != nullptr)
      offered->push_back(buf->buf_size);
    const std::vector<unsigned char> &bytes = area.bytes();
    buf->needed_size = bytes.size();
    if (buf->buf_size < bytes.size())
      return 0;
    if (!bytes.empty())
      std::memcpy(reinterpret_cast<void *>(buf->pgarea), bytes.data(), bytes.size());
    buf->page_count = area.pages();
    return 0;
  };
}

request_handler info_answer(const iostat_info &info) {
  return [info](void *arg) {
    std::memcpy(arg, &info, sizeof info);
    return 0;
  };
}
