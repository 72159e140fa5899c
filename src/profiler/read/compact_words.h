#pragma once
// The words of the compact trace form: fixed chunks in memory up to a bound,
// the chunks after it in an unlinked temporary file.
//
// A busy host's day-long trace can have billions of region accesses; kept
// whole in memory they would take more than the machine has.  Past the
// bound, each chunk goes to the file as it fills and the replays read it
// back a chunk at a time, so memory stays at the bound plus one chunk per
// replay running, whatever the trace's length.
//
// The bound is ZRIOSTAT_REPLAY_MEMORY (MiB; 0 puts every full chunk in the
// file) when set, else REPLAY_WORDS_DEFAULT_MIB.  The file goes into
// $TMPDIR, or /tmp.

#include <cstdint>
#include <memory>
#include <vector>

#include "common/zeroed_pages.h"

constexpr uint64_t TRACE_CHUNK_WORDS = uint64_t{1} << 20;
constexpr uint64_t REPLAY_WORDS_DEFAULT_MIB = 1024;

class compact_words {
public:
  // The memory bound is taken from the environment now.  Chunks of other
  // than TRACE_CHUNK_WORDS words are for tests.
  explicit compact_words(uint64_t chunk_words = TRACE_CHUNK_WORDS);
  ~compact_words();
  compact_words(const compact_words &) = delete;
  compact_words &operator=(const compact_words &) = delete;

  // Appends a word.  False when memory or the file failed: the words are
  // then incomplete and must not be replayed.
  bool push(uint32_t w) {
    if (cursor_ == end_ && !start_chunk())
      return false;
    *cursor_++ = w;
    words_++;
    return cursor_ != end_ || chunks_.back().bytes() != 0 || spill_filled_chunk();
  }
  uint64_t size() const { return words_; }
  uint64_t chunks() const { return chunks_.size(); }
  uint64_t chunk_words() const { return chunk_words_; }
  // Chunks that went to the file.
  uint64_t spilled() const { return spilled_; }

  // Chunk c's words (chunk_words(), or fewer for the last): in memory,
  // or read from the file into *buffer (sized here).  Null when the file
  // cannot be read or the buffer cannot be had.  Safe from several threads
  // at once, each with its own buffer.
  const uint32_t *chunk(uint64_t c, std::unique_ptr<uint32_t[]> *buffer) const;
  // Gives chunk c's memory back once its words are needed no more:
  // reading them again is an error.  A chunk in the file stays there.
  void release(uint64_t c) { chunks_[c].release(); }
  // Hands every chunk's words, in order, to edit(words, n), which may
  // change them in place.  False when the file failed.
  template <class F>
  bool rewrite_chunks(F edit) {
    std::unique_ptr<uint32_t[]> buffer;
    for (uint64_t c = 0; c < chunks_.size(); c++) {
      uint32_t *words = in_memory(c);
      const bool in_file = words == nullptr;
      if (in_file && (words = read_back(c, &buffer)) == nullptr)
        return false;
      edit(words, words_in(c));
      if (in_file && !store(c, words))
        return false;
    }
    return true;
  }
  // Passes every word, in order and in place, through map(word).
  template <class F>
  bool rewrite(F map) {
    return rewrite_chunks([&map](uint32_t *words, uint64_t n) {
      for (uint64_t i = 0; i < n; i++)
        words[i] = map(words[i]);
    });
  }

private:
  uint64_t words_in(uint64_t c) const {
    return c + 1 < chunks_.size() ? chunk_words_ : words_ - c * chunk_words_;
  }
  // Chunk c's words where they are in memory, else null.
  uint32_t *in_memory(uint64_t c) const;
  // Reads chunk c from the file into *buffer (sized here); null on failure.
  uint32_t *read_back(uint64_t c, std::unique_ptr<uint32_t[]> *buffer) const;
  // Writes chunk c's words to its place in the file, made if need be.
  bool store(uint64_t c, const uint32_t *words);
  // Gives the next word a place: a new chunk in memory while the bound
  // allows, else filling_.
  bool start_chunk();
  bool spill_filled_chunk();

  // Unmapped for a chunk whose place is in the file: such a chunk, while it
  // is the last, fills in filling_ and goes to the file once full.
  std::vector<zeroed_pages> chunks_;
  zeroed_pages filling_;
  uint32_t *cursor_ = nullptr; // where the next word goes
  uint32_t *end_ = nullptr;    // the end of the chunk it goes into
  uint64_t chunk_words_;
  uint64_t words_ = 0;
  uint64_t memory_chunks_;  // chunks allowed in memory
  uint64_t first_spilled_ = 0;
  uint64_t spilled_ = 0;
  int fd_ = -1;
};
