// Reading blktrace records from one or several files and merging them.

#include "trace_convert/blktrace_source.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <queue>

#include "trace_convert/blktrace_record.h"
#include "trace_convert/field_scan.h"

namespace {

// One file's records, decoded one ahead so the merge can compare times.
class cpu_stream {
public:
  // `in` is the file already open, or null.
  cpu_stream(std::string path, std::unique_ptr<input_stream> in, size_t buffer_size)
      : path_(std::move(path)), in_(std::move(in)), buf_(new unsigned char[buffer_size]), capacity_(buffer_size) {}

  bool open(std::string *what) {
    std::string_view head;
    bool opened = in_ != nullptr || (in_ = std::make_unique<input_stream>())->open(path_);
    if (!opened || !in_->peek(4, &head)) {
      *what = in_->error();
      return false;
    }
    order_ = blktrace_magic_order(head);
    if (order_ == blktrace_order::unknown && !head.empty()) {
      *what = std::string(input_display_name(path_)) + ": not a blktrace capture (no blktrace magic at its start)";
      return false;
    }
    return true;
  }

  // Decodes the next record into event(): 1, 0 at the end, -1 (*what).
  int advance(std::string *what) {
    if (!ensure(blktrace_header_size, what))
      return -1;
    if (end_ == pos_)
      return 0;
    ++number_;
    if (end_ - pos_ < blktrace_header_size)
      return fail(what, "a record cut short at the end");
    if (!blktrace_decode(buf_.get() + pos_, order_, &event_, what))
      return -1;
    if (!ensure(blktrace_header_size + event_.pdu_len, what))
      return -1;
    if (end_ - pos_ < blktrace_header_size + event_.pdu_len)
      return fail(what, "a record's payload cut short at the end");
    pos_ += blktrace_header_size + event_.pdu_len; // the payload is not needed
    return 1;
  }

  const blktrace_event &event() const { return event_; }
  const std::string &path() const { return path_; }
  uint64_t number() const { return number_; }

private:
  static int fail(std::string *what, const char *why) {
    *what = why;
    return -1;
  }

  // Makes `n` bytes wait in the buffer, or all that is left.
  bool ensure(size_t n, std::string *what) {
    if (end_ - pos_ >= n || eof_)
      return true;
    memmove(buf_.get(), buf_.get() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
    while (end_ < n && !eof_) {
      ssize_t got = in_->read(reinterpret_cast<char *>(buf_.get()) + end_, capacity_ - end_);
      if (got < 0) {
        *what = in_->error();
        return false;
      }
      eof_ = got == 0;
      end_ += static_cast<size_t>(got);
    }
    return true;
  }

  std::string path_;
  std::unique_ptr<input_stream> in_;
  blktrace_order order_ = blktrace_order::unknown;
  std::unique_ptr<unsigned char[]> buf_;
  size_t capacity_, pos_ = 0, end_ = 0;
  bool eof_ = false;
  uint64_t number_ = 0;
  blktrace_event event_;
};

class blktrace_source : public record_source {
public:
  explicit blktrace_source(char action) : action_(action) {}

  bool open(const std::vector<std::string> &files, std::unique_ptr<input_stream> first, std::string *what) {
    // A record and its largest payload always fit; the total stays near 8 MB.
    size_t size = std::max<size_t>(blktrace_header_size + 65536, (8u << 20) / files.size());
    for (const std::string &f : files) {
      streams_.push_back(std::make_unique<cpu_stream>(f, std::move(first), size));
      if (!streams_.back()->open(what))
        return false;
    }
    return true;
  }

  int next(line_kind *kind, parsed_line *out, std::string *what) override {
    if (!started_) {
      started_ = true;
      for (current_ = 0; current_ < streams_.size(); ++current_) {
        int rc = streams_[current_]->advance(what);
        if (rc < 0)
          return -1;
        if (rc > 0)
          queue_.push(current_);
      }
    }
    if (pending_) {
      // Decode the stream's following record only now, so that its damage
      // is reported after every record before it.
      pending_ = false;
      int rc = streams_[current_]->advance(what);
      if (rc < 0)
        return -1;
      if (rc > 0)
        queue_.push(current_);
    }
    if (queue_.empty())
      return 0;
    current_ = queue_.top();
    queue_.pop();
    pending_ = true;
    *kind = blktrace_classify(streams_[current_]->event(), action_, out, what);
    return 1;
  }

  const std::string &input() const override { return streams_[current_]->path(); }
  uint64_t number() const override { return streams_[current_]->number(); }

private:
  // Earliest record first; equal times in file order.
  struct later {
    const blktrace_source *self;
    bool operator()(size_t a, size_t b) const {
      uint64_t ta = self->streams_[a]->event().time, tb = self->streams_[b]->event().time;
      return ta != tb ? ta > tb : a > b;
    }
  };

  char action_;
  std::vector<std::unique_ptr<cpu_stream>> streams_;
  std::priority_queue<size_t, std::vector<size_t>, later> queue_{later{this}};
  size_t current_ = 0;
  bool started_ = false;
  bool pending_ = false;
};

} // namespace

std::vector<std::string> blktrace_cpu_files(const std::string &base) {
  std::filesystem::path p(base);
  std::string prefix = p.filename().string() + ".blktrace.";
  std::filesystem::path dir = p.has_parent_path() ? p.parent_path() : std::filesystem::path(".");
  std::vector<std::pair<uint64_t, std::string>> found;
  std::error_code ec;
  for (const auto &entry : std::filesystem::directory_iterator(dir, ec)) {
    std::string name = entry.path().filename().string();
    uint64_t cpu;
    if (name.starts_with(prefix) && parse_u64(std::string_view(name).substr(prefix.size()), &cpu))
      found.emplace_back(cpu, (p.has_parent_path() ? dir / name : std::filesystem::path(name)).string());
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> files;
  for (auto &f : found)
    files.push_back(std::move(f.second));
  return files;
}

std::unique_ptr<record_source> open_blktrace(const std::vector<std::string> &files, char action,
                                             std::unique_ptr<input_stream> first, std::string *what) {
  auto source = std::make_unique<blktrace_source>(action);
  if (!source->open(files, std::move(first), what))
    return nullptr;
  return source;
}
