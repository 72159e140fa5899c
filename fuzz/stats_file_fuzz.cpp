// The statistics-file reader on fuzzed file bytes, printed in each form.
//
// Whatever the bytes, the reader must stop exactly once: at the end of the
// input when the bytes are whole records (status 0), or with one line on the
// error stream naming a byte offset within the input (status 1).  Each
// record it takes starts where the one before it ended, and the three forms
// must agree on where the reading stopped.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/tool_cli.h"
#include "stats_reader/stats_file_reader.h"
#include "stats_reader/stats_print.h"

namespace {

[[noreturn]] void fault(const char *what) {
  std::fprintf(stderr, "statistics file: %s\n", what);
  std::abort();
}

// Prints the input in one form; returns the status and the error text.
int print_form(const uint8_t *data, size_t size, stats_form form, std::string *err_text) {
  std::string copy(reinterpret_cast<const char *>(data), size);
  FILE *in = size > 0 ? fmemopen(copy.data(), copy.size(), "rb") : fopen("/dev/null", "rb");
  char *out_buf = nullptr;
  size_t out_len = 0;
  char *err_buf = nullptr;
  size_t err_len = 0;
  FILE *out = open_memstream(&out_buf, &out_len);
  FILE *err = open_memstream(&err_buf, &err_len);
  if (in == nullptr || out == nullptr || err == nullptr)
    fault("cannot open the memory streams");
  stats_reader reader(in);
  stats_options opt;
  opt.form = form;
  opt.details = true;
  const int status = stats_print_records(&reader, "fuzz", opt, out, err, nullptr);
  if (stats_bytes_read(reader) > size)
    fault("read past the end of the input");
  fclose(in);
  fclose(out);
  fclose(err);
  *err_text = std::string(err_buf, err_len);
  free(out_buf);
  free(err_buf);
  return status;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Record by record: each starts where the last ended.
  {
    std::string copy(reinterpret_cast<const char *>(data), size);
    FILE *in = size > 0 ? fmemopen(copy.data(), copy.size(), "rb") : fopen("/dev/null", "rb");
    if (in == nullptr)
      fault("cannot open the input");
    stats_reader reader(in);
    stats_record rec;
    uint64_t expected = 0;
    while (stats_read_record(&reader, &rec) == STATS_RECORD) {
      if (rec.offset != expected || reader.offset <= rec.offset)
        fault("a record does not start where the last one ended");
      if (rec.volumes.size() != rec.hdr.nvols)
        fault("the volume count and the volumes disagree");
      expected = reader.offset;
    }
    fclose(in);
  }

  std::string text_err, csv_err, json_err;
  const int text = print_form(data, size, STATS_TEXT, &text_err);
  const int csv = print_form(data, size, STATS_CSV, &csv_err);
  const int json = print_form(data, size, STATS_JSON, &json_err);
  if (text != csv || text != json || text_err != csv_err || text_err != json_err)
    fault("the forms disagree on where the reading stopped");
  if (text != TOOL_EXIT_OK && text != TOOL_EXIT_BAD_INPUT)
    fault("an exit status other than 0 or 1");
  if ((text == TOOL_EXIT_OK) != text_err.empty())
    fault("a message without a failure, or a failure without one");
  return 0;
}
