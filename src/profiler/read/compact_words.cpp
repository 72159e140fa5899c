#include "profiler/read/compact_words.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

uint64_t memory_chunks_allowed(uint64_t chunk_words) {
  uint64_t mib = REPLAY_WORDS_DEFAULT_MIB;
  if (const char *env = getenv("ZRIOSTAT_REPLAY_MEMORY")) {
    char *end;
    errno = 0;
    const unsigned long long v = strtoull(env, &end, 10);
    if (*env >= '0' && *env <= '9' && *end == '\0' && errno == 0)
      mib = v;
  }
  const uint64_t limit = uint64_t{1} << 44; // 16 TiB: beyond any machine
  return (mib < limit ? mib << 20 : limit) / (chunk_words * sizeof(uint32_t));
}

// An unlinked file in $TMPDIR (or /tmp): it goes with the process however
// the process ends.
int open_spill_file() {
  const char *dir = getenv("TMPDIR");
  std::string path = dir != nullptr && *dir != '\0' ? dir : "/tmp";
  path += "/zriostatd-replay-XXXXXX";
  const int fd = mkostemp(path.data(), O_CLOEXEC);
  if (fd >= 0)
    unlink(path.c_str());
  return fd;
}

// Runs op(offset into the data, bytes left, file offset) until all `n`
// bytes are moved; false on an error or an early end of file.
template <class Op>
bool move_all(size_t n, off_t at, Op op) {
  for (size_t done = 0; done < n;) {
    const ssize_t moved = op(done, n - done, at + static_cast<off_t>(done));
    if (moved < 0 && errno == EINTR)
      continue;
    if (moved <= 0)
      return false;
    done += static_cast<size_t>(moved);
  }
  return true;
}

bool whole_pwrite(int fd, const void *data, size_t n, off_t at) {
  const char *p = static_cast<const char *>(data);
  return move_all(n, at, [fd, p](size_t i, size_t left, off_t off) { return pwrite(fd, p + i, left, off); });
}

bool whole_pread(int fd, void *data, size_t n, off_t at) {
  char *p = static_cast<char *>(data);
  return move_all(n, at, [fd, p](size_t i, size_t left, off_t off) { return pread(fd, p + i, left, off); });
}

} // namespace

compact_words::compact_words(uint64_t chunk_words)
    : chunk_words_(chunk_words), memory_chunks_(memory_chunks_allowed(chunk_words)) {}

compact_words::~compact_words() {
  if (fd_ >= 0)
    close(fd_);
}

bool compact_words::store(uint64_t c, const uint32_t *words) {
  if (fd_ < 0 && (fd_ = open_spill_file()) < 0)
    return false;
  const off_t at = static_cast<off_t>((c - first_spilled_) * chunk_words_ * sizeof(uint32_t));
  return whole_pwrite(fd_, words, words_in(c) * sizeof(uint32_t), at);
}

bool compact_words::spill_filled_chunk() {
  if (!store(chunks_.size() - 1, static_cast<const uint32_t *>(filling_.data())))
    return false;
  spilled_++;
  return true;
}

bool compact_words::start_chunk() {
  const uint64_t bytes = chunk_words_ * sizeof(uint32_t);
  if (chunks_.size() < memory_chunks_) {
    zeroed_pages chunk;
    if (!chunk.map(bytes))
      return false;
    chunks_.push_back(std::move(chunk));
    cursor_ = static_cast<uint32_t *>(chunks_.back().data());
  } else {
    if (filling_.data() == nullptr) {
      if (!filling_.map(bytes))
        return false;
      first_spilled_ = chunks_.size();
    }
    chunks_.emplace_back();
    cursor_ = static_cast<uint32_t *>(filling_.data());
  }
  end_ = cursor_ + chunk_words_;
  return true;
}

uint32_t *compact_words::in_memory(uint64_t c) const {
  if (chunks_[c].data() != nullptr)
    return static_cast<uint32_t *>(chunks_[c].data());
  // The last chunk stays in filling_ until it is full.
  if (c + 1 == chunks_.size() && words_in(c) < chunk_words_)
    return static_cast<uint32_t *>(filling_.data());
  return nullptr;
}

uint32_t *compact_words::read_back(uint64_t c, std::unique_ptr<uint32_t[]> *buffer) const {
  if (*buffer == nullptr) {
    buffer->reset(new (std::nothrow) uint32_t[chunk_words_]);
    if (*buffer == nullptr)
      return nullptr;
  }
  const off_t at = static_cast<off_t>((c - first_spilled_) * chunk_words_ * sizeof(uint32_t));
  if (!whole_pread(fd_, buffer->get(), words_in(c) * sizeof(uint32_t), at))
    return nullptr;
  return buffer->get();
}

const uint32_t *compact_words::chunk(uint64_t c, std::unique_ptr<uint32_t[]> *buffer) const {
  if (const uint32_t *words = in_memory(c))
    return words;
  return read_back(c, buffer);
}
