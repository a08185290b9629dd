#!/usr/bin/env python3
"""Turns bench/run's raw lines into the markdown tables of bench/results-*.md.

Raw line: pair side kind bytes window_bytes window_seconds cpu_seconds [rss_kib]
(tab separated). A ratio is rix / minimal within one pair; its median over the
pairs comes with a bootstrap 95 % confidence interval (SciPy, resampling the
pairs), written as the interval's half-width against the median.
"""
import os
import platform
import statistics
import sys
from collections import defaultdict

import numpy as np
from scipy import stats

raw, setup = sys.argv[1], sys.argv[2]
pairs = defaultdict(dict)  # (kind, pair) -> side -> record
for line in open(raw):
    f = line.rstrip("\n").split("\t")
    gib = int(f[3]) / 2**30
    pairs[(f[2], f[0])][f[1]] = {
        "mbps": int(f[4]) / 1e6 / float(f[5]) if float(f[5]) > 0 else 0.0,
        "cpu_gib": float(f[6]) / gib if gib else 0.0,
        "rss": int(f[7]) if len(f) > 7 and f[7] else None,
    }


def both(kind):
    return [p for (k, _), p in sorted(pairs.items()) if k == kind and len(p) == 2]


def median_ci(values):
    """'m [lo–hi] ±h %' for the median of values, or '-'."""
    if not values:
        return "-"
    m = statistics.median(values)
    if len(values) < 3:
        return "%.3f" % m
    ci = stats.bootstrap((np.array(values),), np.median, confidence_level=0.95,
                         n_resamples=10000, method="percentile",
                         random_state=np.random.default_rng(1)).confidence_interval
    half = max(m - ci.low, ci.high - m) / m * 100 if m else 0.0
    return "%.3f [%.3f–%.3f] ±%.1f %%" % (m, ci.low, ci.high, half)


def med(values, fmt):
    return fmt % statistics.median(values) if values else "-"


def ratio(kind, key):
    return [p["rix"][key] / p["minimal"][key] for p in both(kind) if p["minimal"][key] > 0]


def side(kind, name, key):
    return [p[name][key] for p in both(kind)]


def host():
    model = "?"
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    return "%s: %d cores, %s; %s %s" % (platform.node(), os.cpu_count(), model,
                                        platform.system(), platform.release())


out = ["| transfer | pairs | rix MB/s | minimal MB/s | throughput ratio rix/minimal "
       "(median [95 % CI]) | rix CPU s/GiB | minimal CPU s/GiB | CPU ratio rix/minimal |",
       "|---|---|---|---|---|---|---|---|"]
names = {"image": "image loading, MAIN 256 MiB (63488-byte chunks)",
         "dump512": "dump reception, 512 MiB (16400-byte frames)",
         "region": "log region, 64 MiB (4096-byte chunks)"}
for kind in ("image", "dump512", "region"):
    if not both(kind):
        continue
    out.append("| %s | %d | %s | %s | %s | %s | %s | %s |" % (
        names[kind], len(both(kind)), med(side(kind, "rix", "mbps"), "%.0f"),
        med(side(kind, "minimal", "mbps"), "%.0f"), median_ci(ratio(kind, "mbps")),
        med(side(kind, "rix", "cpu_gib"), "%.2f"), med(side(kind, "minimal", "cpu_gib"), "%.2f"),
        median_ci(ratio(kind, "cpu_gib"))))

sizes = [mib for mib in (16, 256, 512, 1024) if both("dump%d" % mib)]
if sizes:
    out += ["", "| dump | pairs | rix MB/s | minimal MB/s | ratio | rix CPU s/GiB | "
            "minimal CPU s/GiB | rix peak RSS (VmHWM) KiB |", "|---|---|---|---|---|---|---|---|"]
    for mib in sizes:
        kind = "dump%d" % mib
        rss = [r for r in side(kind, "rix", "rss") if r is not None]
        out.append("| %d MiB | %d | %s | %s | %s | %s | %s | %s |" % (
            mib, len(both(kind)), med(side(kind, "rix", "mbps"), "%.0f"),
            med(side(kind, "minimal", "mbps"), "%.0f"), med(ratio(kind, "mbps"), "%.3f"),
            med(side(kind, "rix", "cpu_gib"), "%.2f"),
            med(side(kind, "minimal", "cpu_gib"), "%.2f"),
            "%d (%d–%d)" % (statistics.median(rss), min(rss), max(rss)) if rss else "-"))

out += ["", "Medians over the pairs; CPU time is the reading thread's between the first and the "
        "last chunk, for both sides. %s. Host %s." % (setup, host())]
print("\n".join(out))
