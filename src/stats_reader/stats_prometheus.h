#pragma once
// The statistics file as Prometheus metrics, in the text exposition format
// (version 0.0.4): each family's "# HELP" and "# TYPE" lines, then its
// samples.  Written for node_exporter's textfile collector, which reads
// every *.prom file of a directory at each scrape and takes no timestamps,
// so a host's latest record becomes its current values.

#include <cstdio>
#include <vector>

#include "stats_reader/stats_file_reader.h"

// The name of the file written in the collector's directory.
inline constexpr const char STATS_PROM_FILE[] = "zriostatd.prom";

// Writes the metrics of `recs`: every family, each with one sample (or set
// of samples, one per volume or marker) per record.  With `timestamps`
// every sample carries its record's time in milliseconds, so that several
// records stay apart; without, `recs` should hold one record.
void stats_write_prometheus(FILE *out, const std::vector<stats_record> &recs, bool timestamps);

// Reads every record of the reader's stream and writes the latest one
// (`all`: every one, with timestamps) to `out`.  An empty stream writes
// nothing.  Returns what stats_print_records would for the same stream,
// with its message on `err`; the records before a torn or impossible one
// are still written.
int stats_print_prometheus(stats_reader *reader, const char *name, bool all, FILE *out,
                           FILE *err);

// The same for the latest record, written to `dir`/zriostatd.prom through
// a temporary file in `dir` renamed over it, so that a scrape sees the old
// file or the new one, never a part.  Without a record the file is left as
// it was.  A file that cannot be written is TOOL_EXIT_BAD_INPUT with one line
// on `err`.
int stats_write_prometheus_textfile(stats_reader *reader, const char *name, const char *dir,
                                    FILE *err);
