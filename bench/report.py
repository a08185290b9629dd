#!/usr/bin/env python3
"""Turns bench/run's raw lines into the markdown table of bench/results.md.

Raw line: run side kind bytes window_bytes window_seconds cpu_seconds [rss_kib]
(tab separated). Every figure is the median of the runs with min and max;
a ratio is rix / minimal of the same run, and its median is taken over runs.
"""
import os
import statistics
import subprocess
import sys
from collections import defaultdict

raw, runs = sys.argv[1], sys.argv[2]
rows = defaultdict(dict)  # (kind, run) -> side -> record
for line in open(raw):
    f = line.rstrip("\n").split("\t")
    rec = {
        "bytes": int(f[3]),
        "mbps": int(f[4]) / 1e6 / float(f[5]) if float(f[5]) > 0 else 0.0,
        "cpu_gib": float(f[6]) / (int(f[3]) / 2**30) if int(f[3]) else 0.0,
        "rss": int(f[7]) if len(f) > 7 and f[7] else None,
    }
    rows[(f[2], f[0])][f[1]] = rec


def spread(values, fmt):
    v = sorted(values)
    if not v:
        return "-"
    return (fmt % statistics.median(v)) + " (" + (fmt % v[0]) + "–" + (fmt % v[-1]) + ")"


def series(kind, side, key):
    return [r[side][key] for (k, _), r in rows.items() if k == kind and side in r]


def ratios(kind):
    return [r["rix"]["mbps"] / r["minimal"]["mbps"] for (k, _), r in rows.items()
            if k == kind and "rix" in r and "minimal" in r and r["minimal"]["mbps"] > 0]


def cpu_model():
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "?"


out = []
out.append("| transfer | rix MB/s | minimal MB/s | ratio rix/minimal | rix CPU s/GiB | minimal CPU s/GiB |")
out.append("|---|---|---|---|---|---|")
names = {"image": "image loading, MAIN 256 MiB (63488-byte chunks)",
         "dump512": "dump reception, 512 MiB (16400-byte frames)",
         "region": "log region, 64 MiB (4096-byte chunks)"}
for kind in ("image", "dump512", "region"):
    out.append("| %s | %s | %s | %s | %s | %s |" % (
        names[kind], spread(series(kind, "rix", "mbps"), "%.0f"),
        spread(series(kind, "minimal", "mbps"), "%.0f"), spread(ratios(kind), "%.3f"),
        spread(series(kind, "rix", "cpu_gib"), "%.2f"),
        spread(series(kind, "minimal", "cpu_gib"), "%.2f")))
out.append("")
out.append("| dump | rix peak RSS (VmHWM) KiB | rix MB/s | rix CPU s/GiB |")
out.append("|---|---|---|---|")
hwm = {}
for mib in (16, 256, 512, 1024):
    kind = "dump%d" % mib
    rss = [r for r in series(kind, "rix", "rss") if r is not None]
    hwm[mib] = rss
    out.append("| %d MiB | %s | %s | %s |" % (
        mib, spread(rss, "%d"), spread(series(kind, "rix", "mbps"), "%.0f"),
        spread(series(kind, "rix", "cpu_gib"), "%.2f")))
diffs = [b - a for a, b in zip(hwm[16], hwm[1024])]
out.append("")
out.append("Peak RSS, 1 GiB dump minus 16 MiB dump (same run): %s KiB."
           % spread(diffs, "%d"))
out.append("")
out.append("Medians of %s runs, (min–max) after each. Machine: %s cores, %s; %s." % (
    runs, os.cpu_count(), cpu_model(),
    subprocess.run(["uname", "-sr"], capture_output=True, text=True).stdout.strip()))
print("\n".join(out))
