#pragma once
// The formatted diagnostics printer.  Every message of the program goes
// through volpfmt.  A message text starts with its address,
// "<catalogue>:<number>:<built-in text>"; the program's own texts leave the
// catalogue empty (":5267: Incorrect usage\n").  Number 0 means "no catalogue
// entry".  A text without a valid address prints whole, without header.
//
// Not thread-safe: the catalogue-name scratch buffer is shared.

#include <cstdarg>
#include <cstdio>

// Flag values the program uses.
constexpr unsigned VOL_PFMT_ERROR = 0;    // header, severity ERROR
constexpr unsigned VOL_PFMT_INFO = 3;     // header, severity INFO
constexpr unsigned VOL_PFMT_DEBUG = 8;    // header, severity DEBUG
constexpr unsigned VOL_PFMT_PLAIN = 0x120; // no header, text only

// All return the number of characters written, or a negative value when
// writing failed.
int volumivpfmt(FILE *stream, unsigned flags, unsigned catalog_id, unsigned component,
                unsigned subcomponent, const char *text, va_list args);
int volvpfmt(FILE *stream, unsigned flags, const char *text, va_list args);
int volumipfmt(FILE *stream, unsigned flags, unsigned catalog_id, unsigned component,
               unsigned subcomponent, const char *text, ...)
    __attribute__((format(printf, 6, 7)));
int volpfmt(FILE *stream, unsigned flags, const char *text, ...)
    __attribute__((format(printf, 3, 4)));
