#include "common/pfmt.h"

#include <cstring>

#include "common/message_catalog.h"

// The flags split into a header field (bits 0xF0) and a severity field (all
// other bits).
static constexpr unsigned header_field_mask = 0xF0;
static constexpr unsigned header_none = 0x20;
static constexpr unsigned header_only = 0x80;
static constexpr unsigned severity_raw_header = 0x100;

static const char *severity_word(unsigned severity) {
  switch (severity) {
    case 0: return "ERROR";
    case 2: return "WARNING";
    case 3:
    case 0x400: return "INFO";
    case 8: return "DEBUG";
    default: return "";
  }
}

// Severity 0x100 passes the header field through untouched, so with it a
// field of 0 means no header; everywhere else 0 is the ordinary header.
static unsigned header_switch(unsigned header_field, unsigned severity) {
  if (header_field == header_none) return 0;
  if (severity == severity_raw_header) return header_field;
  return header_field == 0 ? 1 : header_field;
}

static const char *program_label(void) {
  if (applabel == nullptr) return "";
  return strncmp(applabel, "zrvm:", 5) == 0 ? applabel + 5 : applabel;
}

int volumivpfmt(FILE *stream, unsigned flags, unsigned catalog_id, unsigned component,
                unsigned subcomponent, const char *text, va_list args) {
  unsigned header_field = flags & header_field_mask;
  unsigned severity = flags & ~header_field_mask;
  bool header = header_switch(header_field, severity) != 0;

  int number;
  char *cat_name;
  const char *builtin;
  extract_cat_mid_str(1, text, &number, &cat_name, &builtin);

  char path[513];
  const char *format = builtin;
  nl_catd opened = reinterpret_cast<nl_catd>(-1);
  if (number >= 1 && header_field != header_only)
    vol_getformat(cat_name, number, path, sizeof path, builtin, &format, &opened);

  int header_count = 0;
  if (header && number != -1) {
    unsigned identifier = catalog_id | component << 4 | subcomponent << 8;
    header_count = fprintf(stream, "%s %s %s Q-%d-%d-%d ", "ZrVM", program_label(),
                           severity_word(severity), 5, static_cast<int>(identifier), number);
    if (header_field == header_only || header_count < 0) {
      if (catd_is_open(opened)) catclose(opened);
      return header_count;
    }
  }

  // The text is the caller's format, either built in or from a catalogue
  // that carries the same conversions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int text_count = vfprintf(stream, format, args);
#pragma GCC diagnostic pop
  if (catd_is_open(opened)) catclose(opened);
  if (text_count < 0) return -1;
  return header_count + text_count;
}

int volvpfmt(FILE *stream, unsigned flags, const char *text, va_list args) {
  return volumivpfmt(stream, flags, libzrvm_catalog_id, libzrvm_component,
                     libzrvm_subcomponent, text, args);
}

int volumipfmt(FILE *stream, unsigned flags, unsigned catalog_id, unsigned component,
               unsigned subcomponent, const char *text, ...) {
  va_list args;
  va_start(args, text);
  int count = volumivpfmt(stream, flags, catalog_id, component, subcomponent, text, args);
  va_end(args);
  return count;
}

int volpfmt(FILE *stream, unsigned flags, const char *text, ...) {
  va_list args;
  va_start(args, text);
  int count = volvpfmt(stream, flags, text, args);
  va_end(args);
  return count;
}
