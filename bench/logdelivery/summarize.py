#!/usr/bin/env python3
"""Medians of bench/logdelivery/run.sh results as a Markdown table.

usage: summarize.py results.tsv
Throughput is compared with nginx (sendfile) at the same number of clients;
resident growth is the daemon's peak VmRSS during four parallel downloads
minus its VmRSS right before them (the worst repeat).
"""
import csv
import statistics
import sys
from collections import defaultdict


def main(path):
    rows = defaultdict(list)
    with open(path) as f:
        for row in csv.DictReader(f, delimiter="\t"):
            rows[(row["label"], int(row["clients"]))].append(row)
    print("| server | clients | repeats | median MB/s | min-max MB/s | % of nginx | server CPU s/GiB | "
          "RSS before KiB | worst RSS growth KiB | max foreign CPU % |")
    print("|---|---|---|---|---|---|---|---|---|---|")
    for (label, clients), group in sorted(rows.items(), key=lambda item: (item[0][1], item[0][0])):
        speeds = [float(r["mb_per_s"]) for r in group]
        cpu = statistics.median(float(r["server_cpu_s_per_gib"]) for r in group)
        reference = rows.get(("nginx-sendfile", clients))
        ratio = statistics.median(speeds) / statistics.median(float(r["mb_per_s"]) for r in reference) * 100 \
            if reference else float("nan")
        if clients == 4:
            before = statistics.median(int(r["rss_before_kib"]) for r in group)
            growth = max(int(r["rss_peak_kib"]) - int(r["rss_before_kib"]) for r in group)
            memory = "%d | %d" % (before, growth)
        else:
            memory = "- | -"
        foreign = max(float(r["foreign_cpu_pct"]) for r in group)
        print("| %s | %d | %d | %.0f | %.0f-%.0f | %.0f%% | %.3f | %s | %.1f |" % (
            label, clients, len(group), statistics.median(speeds), min(speeds), max(speeds), ratio, cpu, memory,
            foreign))


if __name__ == "__main__":
    main(sys.argv[1])
