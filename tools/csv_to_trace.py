#!/usr/bin/env python3
"""Converts a CSV block trace into a zriostatd profiler trace directory.

Reads rows of a comma-separated trace, keeps the reads, and writes
  out         "major minor start length" in 512-byte blocks, sorted by time,
              with "0 0 0 0" closing every 600 seconds of trace time
              (--intervals keeps some of them);
  device_map  "name major minor size" per device, the size being the end of
              the furthest read seen (in blocks).
Every device id of the CSV becomes device (--major, id); ids must be
integers.  Columns are numbered from 0.

Example (timestamp_s,offset_sectors,size_sectors,iotype,volume_id with
iotype 0 for reads):
  tools/csv_to_trace.py --time 0 --offset 1 --size 2 --type 3 --read 0 \\
      --device 4 trace.csv /tmp/trace-dir
"""

import argparse
import csv
import os

INTERVAL_SECONDS = 600
SECTOR = 512


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("csv_file")
    p.add_argument("out_dir")
    p.add_argument("--time", type=int, required=True, help="column of the time stamp")
    p.add_argument("--time-unit", type=float, default=1.0, help="seconds per time-stamp unit")
    p.add_argument("--stretch", type=float, default=1.0, help="multiply trace time by this (to span more intervals)")
    p.add_argument("--offset", type=int, required=True, help="column of the offset")
    p.add_argument("--size", type=int, required=True, help="column of the request size")
    p.add_argument("--bytes", action="store_true", help="offset and size are in bytes, not 512-byte sectors")
    p.add_argument("--size-bytes", action="store_true", help="only the size is in bytes (rounded up to sectors)")
    p.add_argument("--intervals", help="keep only these 600-second intervals (numbered from 0), in this order, e.g. 2,6")
    p.add_argument("--type", type=int, help="column of the request type (all rows are reads without it)")
    p.add_argument("--read", default="R", help="value of the type column that marks a read")
    p.add_argument("--device", type=int, help="column of the device id (one device 0 without it)")
    p.add_argument("--major", type=int, default=253, help="major number of every device")
    p.add_argument("--header", action="store_true", help="skip the first row")
    args = p.parse_args()

    reads = []
    t0 = None
    with open(args.csv_file, newline="") as f:
        rows = csv.reader(f)
        if args.header:
            next(rows, None)
        for row in rows:
            # Intervals count from the trace's first row, read or not.
            t = float(row[args.time]) * args.time_unit * args.stretch
            t0 = t if t0 is None else min(t0, t)
            if args.type is not None and row[args.type].strip() != args.read:
                continue
            start, length = int(row[args.offset]), int(row[args.size])
            if args.bytes:
                start = start // SECTOR
            if args.bytes or args.size_bytes:
                length = (length + SECTOR - 1) // SECTOR
            if length == 0:
                continue  # the profiler skips zero-length reads anyway
            device = int(row[args.device]) if args.device is not None else 0
            reads.append((t, device, start, length))
    reads.sort(key=lambda r: r[0])

    os.makedirs(args.out_dir, exist_ok=True)
    extent = {}
    intervals = {}
    for t, device, start, length in reads:
        intervals.setdefault(int((t - t0) // INTERVAL_SECONDS), []).append((device, start, length))
    if args.intervals:
        keep = [int(k) for k in args.intervals.split(",")]
    else:
        keep = list(range(max(intervals) + 1 if intervals else 0))
    # The last interval needs no closing line: the end of the file ends it.
    with open(os.path.join(args.out_dir, "out"), "w") as out:
        for i, k in enumerate(keep):
            for device, start, length in intervals.get(k, []):
                out.write(f"{args.major} {device} {start} {length}\n")
                extent[device] = max(extent.get(device, 0), start + length)
            if i != len(keep) - 1:
                out.write("0 0 0 0\n")
    with open(os.path.join(args.out_dir, "device_map"), "w") as m:
        for device in sorted(extent):
            m.write(f"vol{device} {args.major} {device} {extent[device]}\n")
    print(f"{args.out_dir}: {len(reads)} reads, {len(extent)} devices")


if __name__ == "__main__":
    main()
