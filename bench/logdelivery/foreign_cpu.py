#!/usr/bin/env python3
"""CPU time used on this machine by everything outside this network namespace
during a window.

usage: foreign_cpu.py snap FILE     remember the machine's and our own CPU time
       foreign_cpu.py delta FILE    print the % of one core others used since

The machine may be shared: a row measured while others were busy is worth
repeating. Others' share is the machine's busy time (user, nice and system,
from /proc/stat) less what the processes of this namespace used, their reaped
children included (the load generators are children of the script).
"""
import json
import os
import sys
import time


def machine_busy_ticks():
    with open("/proc/stat") as f:
        fields = f.readline().split()
    return int(fields[1]) + int(fields[2]) + int(fields[3])


def own_namespace_ticks():
    own_net = os.stat("/proc/self/ns/net").st_ino
    ticks = {}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            if os.stat("/proc/%s/ns/net" % name).st_ino != own_net:
                continue
            with open("/proc/%s/stat" % name) as f:
                stat = f.read()
        except OSError:
            continue
        fields = stat[stat.rindex(")") + 2:].split()
        # utime, stime, cutime, cstime; the key adds the start time so that a reused pid is a new process.
        ticks["%s:%s" % (name, fields[19])] = sum(int(v) for v in fields[11:15])
    return ticks


def main(command, path):
    if command == "snap":
        with open(path, "w") as f:
            json.dump({"time": time.time(), "busy": machine_busy_ticks(), "own": own_namespace_ticks()}, f)
        return
    with open(path) as f:
        before = json.load(f)
    busy = machine_busy_ticks() - before["busy"]
    own = sum(max(0, value - before["own"].get(key, 0)) for key, value in own_namespace_ticks().items())
    seconds = max(time.time() - before["time"], 1e-3)
    print("%.1f" % max(0.0, 100.0 * (busy - own) / os.sysconf("SC_CLK_TCK") / seconds))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
