#pragma once
// The statistics reader's three forms of a record: a text line for a person,
// a CSV row and a JSON object for scripts.  Each takes one whole record, so a
// file can be printed as it is read and a growing file as it grows.

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "stats_reader/stats_file_reader.h"

// Cache sizes are shown in GB: regions x 64 KiB.
double stats_regions_to_gb(uint64_t regions);

// "YYYY-MM-DD HH:MM:SS" in local time.
std::string stats_local_time(int64_t time);

// The guid as the daemon prints it in its log.
std::string stats_guid_text(const wl_volume &vol);

// The detail records that stand for a region: the selection may count one
// entry past the regions it sorted, and the record written for it holds
// nothing.
uint64_t stats_listed_regions(const stats_record &rec);

// One line: time, workload size, regions counted, threshold, cut markers,
// volumes.  With `details`, one indented line per listed region follows.
void stats_print_text(FILE *out, const stats_record &rec, bool details);

// CSV: one row per record, or with `details` one row per listed region.
void stats_print_csv_header(FILE *out, bool details);
void stats_print_csv(FILE *out, const stats_record &rec, bool details);

// Every field of the record, in file order; with `details` its listed regions under
// "regions".
nlohmann::ordered_json stats_record_json(const stats_record &rec, bool details);
