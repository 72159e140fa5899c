#!/usr/bin/env python3
"""Converts a block-I/O trace in CSV form into the profiler's trace format.

Input columns (with a header line): version,time,op,size,lbn -- time in
seconds, op "28" for a read, size in bytes, lbn in 512-byte sectors.  Only
reads are kept.  Output, one read a line: "major minor start length" (start
and length in 512-byte blocks), with a line "0 0 0 0" closing every 600
seconds of trace time counted from the first row.

  trace_to_profiler.py IN.csv [--intervals 2,6] [--device MAJOR:MINOR] > out

--intervals keeps only the listed intervals (numbered from 0), in the order
given.  The last interval written is closed by end of file rather than by
"0 0 0 0", as the profiler reads the rest of the file as one more interval.
"""
import argparse
import csv
import sys

INTERVAL = 600


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("csv")
    ap.add_argument("--intervals", default=None)
    ap.add_argument("--device", default="8:0")
    args = ap.parse_args()
    major, minor = (int(x) for x in args.device.split(":"))

    intervals = {}
    t0 = None
    with open(args.csv, newline="") as f:
        for row in csv.DictReader(f):
            t = int(row["time"])
            t0 = t if t0 is None else t0
            if row["op"] != "28":
                continue
            length = (int(row["size"]) + 511) // 512
            if length == 0:
                continue
            intervals.setdefault((t - t0) // INTERVAL, []).append((int(row["lbn"]), length))

    if args.intervals is None:
        keep = list(range(max(intervals) + 1 if intervals else 0))
    else:
        keep = [int(k) for k in args.intervals.split(",")]
    out = sys.stdout
    for i, k in enumerate(keep):
        for start, length in intervals.get(k, []):
            out.write(f"{major} {minor} {start} {length}\n")
        if i != len(keep) - 1:
            out.write("0 0 0 0\n")


if __name__ == "__main__":
    main()
