#!/usr/bin/env python3
"""Writes a synthetic block-read trace directory for zriostatd's profiler.

The directory gets two files:
  out         one read a line, "major minor start length" (512-byte blocks),
              with a line "0 0 0 0" closing every 600-second interval;
  device_map  one device a line, "name major minor size" (size in blocks).

The trace is deterministic: the same arguments always give the same bytes
(one seeded generator, no clock, no environment).  Each device has a hot set
of regions, read with a skewed popularity, that drifts from interval to
interval; on top come sequential scans and uniformly random cold reads.
Requests are 4 KiB to 128 KiB and may straddle region boundaries.

Presets:
  oltp   four devices, hot sets that stand clearly above the rest: the
         profiler finds an optimal cache size with a per-device breakup.
  scan   three devices read mostly by long sequential scans and scattered
         random reads, no region hot in any interval: nothing can be
         predicted and the report ends in the fixed-fraction table.
  bench  four devices, 24 intervals, about five million reads.
  heavy  as bench, with hot sets about ten times larger and flatter, so
         the optimal cache is over 150,000 regions and the search runs at
         least six replays.

Examples:
  tools/gen_trace.py --preset oltp examples/oltp
  tools/gen_trace.py --preset oltp --intervals 3 --reads 2000 /tmp/t
"""

import argparse
import os
import random
import sys

REGION_BLOCKS = 128          # 64 KiB regions of 512-byte blocks
BLOCKS_PER_MIB = 2 * 1024

# name, major, minor, size in MiB
DEVICES = {
    "oltp": [("sda", 8, 0, 65536), ("sdb", 8, 16, 32768), ("nvme0n1", 259, 0, 131072), ("dm-3", 253, 3, 16384)],
    "scan": [("sdc", 8, 32, 512), ("sdd", 8, 48, 256), ("vdb", 252, 16, 128)],
    "bench": [("sda", 8, 0, 262144), ("sdb", 8, 16, 262144), ("nvme0n1", 259, 0, 524288), ("nvme1n1", 259, 1, 524288)],
    "heavy": [("sda", 8, 0, 262144), ("sdb", 8, 16, 262144), ("nvme0n1", 259, 0, 524288), ("nvme1n1", 259, 1, 524288)],
}

# Per preset: intervals, reads per interval, share of hot reads, share of
# scan reads (the rest is random), hot regions per device, share of the hot
# set replaced each interval, popularity skew, scan length in requests, scan
# request size in blocks (128: each region read once per pass) and the
# chance that a scan starts somewhere new rather than where the last ended.
PRESETS = {
    "oltp": dict(intervals=12, reads=6000, hot=0.75, scan=0.10, hot_regions=600,
                 drift=0.10, skew=0.8, scan_len=48, scan_req=64, restart=0.2),
    "scan": dict(intervals=8, reads=5000, hot=0.0, scan=0.94, hot_regions=0,
                 drift=0.0, skew=1.0, scan_len=256, scan_req=128, restart=0.0),
    "bench": dict(intervals=24, reads=210000, hot=0.70, scan=0.15, hot_regions=4000,
                  drift=0.10, skew=1.0, scan_len=64, scan_req=64, restart=0.2),
    "heavy": dict(intervals=24, reads=210000, hot=0.80, scan=0.10, hot_regions=30000,
                  drift=0.05, skew=0.5, scan_len=64, scan_req=64, restart=0.2),
}

SIZES = [8, 8, 8, 8, 16, 16, 32, 64, 128, 256]  # request lengths in blocks


class Device:
    def __init__(self, rng, name, major, minor, mib, hot_regions, skew):
        self.name, self.major, self.minor = name, major, minor
        self.blocks = mib * BLOCKS_PER_MIB
        self.regions = self.blocks // REGION_BLOCKS
        self.rng = rng
        self.hot = rng.sample(range(self.regions), hot_regions) if hot_regions else []
        # Zipf-like weights: rank i is read about 1 / (i + 1)^skew as often.
        weights = [1.0 / (i + 1) ** skew for i in range(hot_regions)]
        total = sum(weights)
        self.cumulative = []
        acc = 0.0
        for w in weights:
            acc += w / total
            self.cumulative.append(acc)
        self.scan_pos = rng.randrange(self.regions) * REGION_BLOCKS

    def drift(self, share):
        """Replaces a share of the hot set with fresh regions."""
        for _ in range(int(len(self.hot) * share)):
            self.hot[self.rng.randrange(len(self.hot))] = self.rng.randrange(self.regions)

    def hot_read(self):
        u = self.rng.random()
        lo, hi = 0, len(self.cumulative) - 1
        while lo < hi:
            mid = (lo + hi) // 2
            if self.cumulative[mid] < u:
                lo = mid + 1
            else:
                hi = mid
        region = self.hot[lo]
        start = region * REGION_BLOCKS + self.rng.randrange(REGION_BLOCKS)
        return self.clip(start, self.rng.choice(SIZES))

    def random_read(self):
        return self.clip(self.rng.randrange(self.blocks), self.rng.choice(SIZES))

    def scan(self, length, size, restart):
        """A sequential run of `length` requests of `size` blocks."""
        if self.rng.random() < restart:
            self.scan_pos = self.rng.randrange(self.regions) * REGION_BLOCKS
        reads = []
        for _ in range(length):
            if self.scan_pos + size > self.blocks:
                self.scan_pos = 0
            reads.append((self.scan_pos, size))
            self.scan_pos += size
        return reads

    def clip(self, start, length):
        return (min(start, self.blocks - length), length)


def generate(out_dir, preset, seed, intervals, reads):
    p = PRESETS[preset]
    intervals = intervals or p["intervals"]
    reads = reads or p["reads"]
    rng = random.Random(seed)
    devices = [Device(rng, n, ma, mi, g, p["hot_regions"], p["skew"]) for n, ma, mi, g in DEVICES[preset]]
    # Devices carry different loads: the first twice the last.
    load = [2.0 - i / max(1, len(devices) - 1) for i in range(len(devices))]

    # The shares are shares of reads; a scan is one event of many reads.
    scan_reads = (p["scan_len"] // 2 + p["scan_len"]) / 2
    weights = [p["hot"], p["scan"] / scan_reads, 1.0 - p["hot"] - p["scan"]]
    hot_event = weights[0] / sum(weights)
    scan_event = weights[1] / sum(weights)

    os.makedirs(out_dir, exist_ok=True)
    with open(os.path.join(out_dir, "device_map"), "w") as f:
        for d in devices:
            f.write(f"{d.name} {d.major} {d.minor} {d.blocks}\n")

    total = 0
    with open(os.path.join(out_dir, "out"), "w") as f:
        for interval in range(intervals):
            if interval:
                f.write("0 0 0 0\n")
                for d in devices:
                    d.drift(p["drift"])
            lines = []
            while len(lines) < reads:
                d = rng.choices(devices, weights=load)[0]
                kind = rng.random()
                if kind < hot_event:
                    batch = [d.hot_read()]
                elif kind < hot_event + scan_event:
                    batch = d.scan(rng.randrange(p["scan_len"] // 2, p["scan_len"] + 1), p["scan_req"], p["restart"])
                else:
                    batch = [d.random_read()]
                for start, length in batch:
                    lines.append(f"{d.major} {d.minor} {start} {length}\n")
            del lines[reads:]
            f.writelines(lines)
            total += len(lines)
    return total


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("out_dir", help="directory to write out and device_map into")
    parser.add_argument("--preset", choices=sorted(PRESETS), default="oltp")
    parser.add_argument("--seed", type=int, default=20240607)
    parser.add_argument("--intervals", type=int, default=0, help="600-second intervals (default: the preset's)")
    parser.add_argument("--reads", type=int, default=0, help="reads per interval (default: the preset's)")
    args = parser.parse_args()
    total = generate(args.out_dir, args.preset, args.seed, args.intervals, args.reads)
    print(f"{args.out_dir}: {total} reads", file=sys.stderr)


if __name__ == "__main__":
    main()
