#include "profiler/replay_words.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string>
#include <unistd.h>

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

replay_words::replay_words(uint64_t chunk_words)
    : chunk_words_(chunk_words), memory_chunks_(memory_chunks_allowed(chunk_words)) {}

replay_words::~replay_words() {
  if (fd_ >= 0)
    close(fd_);
}

bool replay_words::store(uint64_t c, const uint32_t *words) {
  if (fd_ < 0 && (fd_ = open_spill_file()) < 0)
    return false;
  const off_t at = static_cast<off_t>((c - first_spilled_) * chunk_words_ * sizeof(uint32_t));
  return whole_pwrite(fd_, words, words_in(c) * sizeof(uint32_t), at);
}

bool replay_words::spill_filled_chunk() {
  if (!store(chunks_.size() - 1, filling_.get()))
    return false;
  spilled_++;
  return true;
}

bool replay_words::push(uint32_t w) {
  const uint64_t at = words_ % chunk_words_;
  if (at == 0) {
    // A new chunk: in memory while the bound allows, else in filling_.
    if (chunks_.size() < memory_chunks_) {
      uint32_t *chunk = new (std::nothrow) uint32_t[chunk_words_];
      if (chunk == nullptr)
        return false;
      chunks_.emplace_back(chunk);
    } else {
      if (filling_ == nullptr) {
        filling_.reset(new (std::nothrow) uint32_t[chunk_words_]);
        if (filling_ == nullptr)
          return false;
        first_spilled_ = chunks_.size();
      }
      chunks_.emplace_back(nullptr);
    }
  }
  uint32_t *chunk = chunks_.back() != nullptr ? chunks_.back().get() : filling_.get();
  chunk[at] = w;
  words_++;
  if (at + 1 == chunk_words_ && chunks_.back() == nullptr)
    return spill_filled_chunk();
  return true;
}

const uint32_t *replay_words::chunk(uint64_t c, std::unique_ptr<uint32_t[]> *buffer) const {
  if (chunks_[c] != nullptr)
    return chunks_[c].get();
  // The last chunk is still in filling_ until it is full.
  if (c + 1 == chunks_.size() && words_in(c) < chunk_words_)
    return filling_.get();
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
