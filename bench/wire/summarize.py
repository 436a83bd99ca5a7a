#!/usr/bin/python3
"""Summary of one run of bench/wire/run.sh: medians over the rounds, ratios of
chd to the peers measured in the same run, and each goal met or not.

usage: summarize.py RESULTS_DIR     writes RESULTS_DIR/summary.md and prints it
"""

import csv
import os
import statistics
import sys
from collections import defaultdict

GOAL_STARTUP_MS = 100
GOAL_WAKEUPS = 0.5
GOAL_PSS_VS_MINIDLNA = 0.8  # what a box pays: RSS is mostly shared library pages, reported only
GOAL_USS_VS_MINIDLNA = 0.5
GOAL_GETVALUES_P99_US = 3000  # at 16 connections
GOAL_P99_CONNECTIONS = 16
QUIET_FOREIGN_PCT = 10.0  # rows where the rest of the machine used more CPU than this are disturbed

SECTIONS = {
    # section: (chd rows, the peer the first chd row is held against, further rows to compare with)
    "soap": (["chd-GetCurrentConfigurationVersion", "chd-GetSupportedDataModels",
              "chd-GetCurrentConfigurationVersion-close"], "rygel-GetSystemUpdateID",
             ["rygel-GetSystemUpdateID-close", "nginx-10k-keepalive", "nginx-10k-close"]),
    "getvalues": (["chd-GetValues-whole-tree", "chd-GetValues-whole-tree-close"], "minidlna-Browse24",
                  ["nginx-10k-keepalive", "nginx-10k-close"]),
    "cp": (["cp-chd-GetCurrentConfigurationVersion", "cp-chd-GetValues-whole-tree"], "cp-rygel-GetSystemUpdateID",
           ["cp-minidlna-Browse24"]),
}
TOOLS = {"soap": "wrk", "getvalues": "wrk", "cp": "a GUPnP control point"}


def rows(directory, name):
    path = os.path.join(directory, name)
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return list(csv.DictReader(f, delimiter="\t"))


def verdict(ok):
    return "met" if ok else "NOT met"


def cpu_us_per_request(row):
    """Server CPU per request: hardly moved by other load, which slows the server and its clients alike."""
    rps = float(row["rps"])
    return float(row["server_cpu_pct"]) / 100.0 / rps * 1e6 if rps else float("nan")


def spread(values):
    middle = statistics.median(values)
    return 100.0 * (max(values) - min(values)) / middle if middle else float("nan")


class Report:
    def __init__(self, directory):
        self.directory = directory
        self.lines = []

    def add(self, text=""):
        self.lines.append(text)

    def env(self):
        path = os.path.join(self.directory, "env.txt")
        if os.path.exists(path):
            self.add("```")
            self.add(open(path).read().rstrip())
            self.add("```")
            self.add()

    def startup(self):
        runs = rows(self.directory, "startup.tsv")
        if not runs:
            return
        first = [float(r["first_alive_ms"]) for r in runs if r["first_alive_ms"] != "timeout"]
        device = [float(r["device_alive_ms"]) for r in runs if r["device_alive_ms"] != "timeout"]
        failed = len(runs) - len(first)
        self.add("## Start to first SSDP alive\n")
        self.add("| measure | starts | median ms | min ms | max ms |")
        self.add("|---|---|---|---|---|")
        for name, values in (("first alive (any NT)", first), ("alive of ManageableDevice:1", device)):
            if values:
                self.add("| %s | %d | %.1f | %.1f | %.1f |" % (
                    name, len(values), statistics.median(values), min(values), max(values)))
        self.add()
        if first:
            self.add("Goal under %d ms (median): %s%s.\n" % (
                GOAL_STARTUP_MS, verdict(statistics.median(first) < GOAL_STARTUP_MS and not failed),
                ", %d start(s) never announced within 10 s" % failed if failed else ""))

    def idle(self):
        table = rows(self.directory, "idle.tsv")
        if not table:
            return
        self.add("## Idle footprint\n")
        self.add("| process | window s | CPU % | wake-ups/s | threads | fds | VmRSS KiB | of it anon | of it files "
                 "| PSS KiB | USS KiB | VmHWM KiB |")
        self.add("|---|---|---|---|---|---|---|---|---|---|---|---|")
        for r in table:
            self.add("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
                r["label"], r["window_s"], r["cpu_pct"], r["wakeups_per_s"], r["threads"], r["fds"], r["rss_kib"],
                r.get("rss_anon_kib", "n/a"), r.get("rss_file_kib", "n/a"), r["pss_kib"], r["uss_kib"], r["hwm_kib"]))
        self.add()
        by_label = {r["label"]: r for r in table}
        chd = by_label.get("chd")
        if chd:
            self.footprint_goals(chd, by_label)
        threads = [r for r in rows(self.directory, "idle_threads.tsv") if r["label"] == "chd"]
        if threads:
            busy = ", ".join("%s %s/s" % (r["thread"], r["wakeups_per_s"]) for r in threads[:6])
            self.add("chd's threads by wake-ups while idle: %s.\n" % busy)

    def footprint_goals(self, chd, by_label):
        def ratio(key, peer):
            return int(chd[key]) / max(1, int(by_label[peer][key])) if peer in by_label else float("nan")

        wakeups = float(chd["wakeups_per_s"])
        pss, uss = ratio("pss_kib", "minidlna"), ratio("uss_kib", "minidlna")
        self.add("chd idles at PSS %s KiB, %.2fx minidlna's (goal at most %.1fx: %s), USS %s KiB, %.2fx minidlna's "
                 "(goal at most %.1fx: %s); VmRSS %s KiB (%.2fx minidlna's, %.2fx Rygel's; mostly shared library "
                 "pages). Wake-ups %.2f/s, goal at most %.1f/s: %s.\n" % (
                     chd["pss_kib"], pss, GOAL_PSS_VS_MINIDLNA, verdict(pss <= GOAL_PSS_VS_MINIDLNA), chd["uss_kib"],
                     uss, GOAL_USS_VS_MINIDLNA, verdict(uss <= GOAL_USS_VS_MINIDLNA), chd["rss_kib"],
                     ratio("rss_kib", "minidlna"), ratio("rss_kib", "rygel"), wakeups, GOAL_WAKEUPS,
                     verdict(wakeups <= GOAL_WAKEUPS)))

    def load(self, section):
        table = rows(self.directory, section + ".tsv")
        if not table:
            return
        chd_labels, peer, floors = SECTIONS[section]
        groups = defaultdict(list)
        for r in table:
            groups[(r["label"], int(r["conc"]))].append(r)
        medians = {key: statistics.median(float(r["rps"]) for r in rs) for key, rs in groups.items()}
        costs = {key: statistics.median(cpu_us_per_request(r) for r in rs) for key, rs in groups.items()}
        quiet = {}
        for key, rs in groups.items():
            calm = [float(r["rps"]) for r in rs if float(r["foreign_cpu_pct"]) <= QUIET_FOREIGN_PCT]
            if calm:
                quiet[key] = (statistics.median(calm), len(calm))
        self.add("## %s (%s, median of %d rounds)\n" % (section, TOOLS[section],
                                                        max(len(rs) for rs in groups.values())))
        self.add("| target | c | req/s | spread | req/s, quiet rounds (n) | p50 µs | p99 µs (median) | p99 µs (worst) | "
                 "errors c/r/w/s/t | B/resp | server CPU % | server CPU µs/req | foreign CPU % (max) |")
        self.add("|---|---|---|---|---|---|---|---|---|---|---|---|---|")
        for (label, c), rs in sorted(groups.items(), key=lambda kv: (kv[0][1], kv[0][0])):
            rps = [float(r["rps"]) for r in rs]
            errors = [0] * 5
            for r in rs:
                for i, x in enumerate(r["errors_c/r/w/s/t"].split("/")):
                    errors[i] += int(x)
            calm = "%.0f (%d)" % quiet[(label, c)] if (label, c) in quiet else "none"
            self.add("| %s | %d | %.0f | %.1f%% | %s | %.0f | %.0f | %d | %s | %s | %.0f | %.0f | %.1f |" % (
                label, c, medians[(label, c)], spread(rps), calm, statistics.median(int(r["p50_us"]) for r in rs),
                statistics.median(int(r["p99_us"]) for r in rs), max(int(r["p99_us"]) for r in rs),
                "/".join(map(str, errors)), rs[0]["bytes_per_resp"],
                statistics.median(float(r["server_cpu_pct"]) for r in rs), costs[(label, c)],
                max(float(r["foreign_cpu_pct"]) for r in rs)))
        self.add()
        self.add("Server CPU per request, chd against the others (above 1: chd spends more):\n")
        self.add("| chd target | c | vs %s | %s |" % (peer, " | ".join("vs " + f for f in floors)))
        self.add("|---|---|---|%s" % ("---|" * len(floors)))
        for label in chd_labels:
            for c in sorted({c for (l, c) in groups if l == label}):
                cells = ["%.2f" % (costs[(label, c)] / costs[(o, c)]) if (o, c) in costs else "n/a"
                         for o in [peer] + floors]
                self.add("| %s | %d | %s |" % (label, c, " | ".join(cells)))
        self.add()
        self.add("Ratios of req/s medians measured in this run, all rounds (quiet rounds only):\n")
        self.add("| chd target | c | vs %s | %s |" % (peer, " | ".join("vs " + f for f in floors)))
        self.add("|---|---|---|%s" % ("---|" * len(floors)))
        for label in chd_labels:
            for c in sorted({c for (l, c) in groups if l == label}):
                cells = []
                for other in [peer] + floors:
                    theirs = medians.get((other, c))
                    cell = "%.2f" % (medians[(label, c)] / theirs) if theirs else "n/a"
                    if (label, c) in quiet and (other, c) in quiet:
                        cell += " (%.2f)" % (quiet[(label, c)][0] / quiet[(other, c)][0])
                    cells.append(cell)
                self.add("| %s | %d | %s |" % (label, c, " | ".join(cells)))
        self.add()
        self.goals(section, groups, medians, quiet, costs, chd_labels[0], peer)

    def goals(self, section, groups, medians, quiet, costs, chd_label, peer):
        """Trivial actions: at least the peer's rate at no more CPU per request. GetValues: no more CPU per
        request than minidlna's Browse, p99 under the goal at 16 connections, no errors."""
        for c in sorted({c for (l, c) in groups if l == chd_label}):
            if (peer, c) in medians:
                calm = (chd_label, c) in quiet and (peer, c) in quiet
                ours = quiet[(chd_label, c)][0] if calm else medians[(chd_label, c)]
                theirs = quiet[(peer, c)][0] if calm else medians[(peer, c)]
                cost = costs[(chd_label, c)] / costs[(peer, c)]
                rate = "" if section == "getvalues" else "at least the peer's rate %s; " % verdict(ours >= theirs)
                self.add("- c=%d: %s at %.0f req/s against %s at %.0f (%s): %schd spends %.2fx the peer's server "
                         "CPU per request, at most 1.0x %s." % (
                             c, chd_label, ours, peer, theirs,
                             "quiet rounds" if calm else "all rounds, disturbed by other load: rates unreliable",
                             rate, cost, verdict(cost <= 1.0)))
            if section == "getvalues":
                rs = groups[(chd_label, c)]
                p99 = statistics.median(int(r["p99_us"]) for r in rs)
                errors = sum(sum(int(x) for x in r["errors_c/r/w/s/t"].split("/")) for r in rs)
                goal = ("under %d µs %s" % (GOAL_GETVALUES_P99_US, verdict(p99 < GOAL_GETVALUES_P99_US))
                        if c == GOAL_P99_CONNECTIONS else "no goal at this concurrency")
                self.add("- c=%d: p99 %.0f µs (median of rounds), %s; %d errors, none %s." % (
                    c, p99, goal, errors, verdict(errors == 0)))
        self.add()

    def growth(self):
        by_label = {r["label"]: r for r in rows(self.directory, "idle.tsv")}
        before, after = by_label.get("chd"), by_label.get("chd-afterload")
        if not before or not after:
            return
        served = sum(int(r["requests"]) for section in SECTIONS for r in rows(self.directory, section + ".tsv")
                     if r["label"].startswith(("chd-", "cp-chd-")))
        grown = int(after["rss_kib"]) - int(before["rss_kib"])
        self.add("## chd after the load\n")
        self.add("VmRSS %s KiB after serving %d requests (kept-alive and one per connection), %+d KiB over the idle "
                 "figure: %.0f bytes per request; open fds %s before, %s after.\n" % (
                     after["rss_kib"], served, grown, 1024.0 * grown / max(1, served), before["fds"], after["fds"]))

    def text(self):
        return "\n".join(self.lines) + "\n"


def main(directory):
    report = Report(directory)
    report.add("# Over-the-wire benchmark: chd beside its peers\n")
    report.env()
    report.startup()
    report.idle()
    for section in SECTIONS:
        report.load(section)
    report.growth()
    report.add("Foreign CPU: CPU used during the row by processes outside the benchmark's network namespace "
               "(other work on a shared machine; a compiler reaped within the window counts in full, so the "
               "figure can pass 200 %%). Quiet rounds: foreign CPU at most %.0f %%." % QUIET_FOREIGN_PCT)
    text = report.text()
    with open(os.path.join(directory, "summary.md"), "w") as f:
        f.write(text)
    print(text)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else "/tmp/chd-bench-wire")
