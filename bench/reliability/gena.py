#!/usr/bin/env python3
"""GENA subscriptions of the real chd under churn and at the cap.

1. 20,000 SUBSCRIBE + UNSUBSCRIBE cycles one after another on the
   BasicManagement service, half with a callback that takes the events and
   half with one whose port refuses connections (after 2,000 to warm up);
2. 20,000 SUBSCRIBE attempts while the service is at its cap, then a renewal
   of every granted subscription.

Prints the daemon's resident memory and open descriptors before and after
each phase, the granted/refused counts and the time taken.

usage (as root): CHD_BUILD_DIR=build tests/e2e/run_in_netns.sh python3 bench/reliability/gena.py
env:  GENA_CYCLES=20000 GENA_ATTEMPTS=20000 (each at most 100,000); every
      phase stops after GENA_PHASE_SECONDS=300 whatever its count.
"""

import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "e2e"))

from chdtest import ChdEnv  # noqa: E402
from wireload import platform_with_port  # noqa: E402
from genaclient import CallbackServer, Publisher, closed_port_url, descriptors, event_urls, resident_kb  # noqa: E402

PLATFORM = platform_with_port({"manufacturer": "Acme", "model": "ABC", "manufacturer_id": "42"})
LIMIT = 100000


def count(name, default):
    return max(0, min(LIMIT, int(os.environ.get(name, default))))


PHASE_SECONDS = float(os.environ.get("GENA_PHASE_SECONDS", "300"))


def figures(pid):
    return resident_kb(pid), descriptors(pid)


def report(name, before, after, elapsed, extra):
    print("%-34s RSS %6d -> %6d kB (%+d kB)  fds %3d -> %3d  %6.1f s  %s" %
          (name, before[0], after[0], after[0] - before[0], before[1], after[1], elapsed, extra), flush=True)


def churn(publisher, callbacks, cycles):
    """SUBSCRIBE then UNSUBSCRIBE at once; returns (cycles done, statuses seen)."""
    statuses = {}
    deadline = time.monotonic() + PHASE_SECONDS
    done = 0
    while done < cycles and time.monotonic() < deadline:
        status, sid = publisher.subscribe(callbacks[done % len(callbacks)])
        key = "SUBSCRIBE %d" % status
        statuses[key] = statuses.get(key, 0) + 1
        if sid:
            key = "UNSUBSCRIBE %d" % publisher.unsubscribe(sid)
            statuses[key] = statuses.get(key, 0) + 1
        done += 1
    return done, statuses


def at_cap(publisher, callback, attempts):
    granted, refused, other, sids = 0, 0, 0, []
    deadline = time.monotonic() + PHASE_SECONDS
    for _ in range(attempts):
        if time.monotonic() > deadline:
            break
        status, sid = publisher.subscribe(callback)
        if status == 200:
            granted += 1
            sids.append(sid)
        elif status == 503:
            refused += 1
        else:
            other += 1
    renewed = sum(1 for sid in sids if publisher.renew(sid) == 200)
    return granted, refused, other, renewed, sids


def main():
    cycles = count("GENA_CYCLES", 20000)
    attempts = count("GENA_ATTEMPTS", 20000)
    with ChdEnv(platform=PLATFORM, client_app=False, log_level=4) as env:
        pid = env.chd.pid
        publisher = Publisher(event_urls(env, ["BasicManagement"])["BasicManagement"])
        taker = CallbackServer()
        callbacks = [taker.url, closed_port_url()]
        churn(publisher, callbacks, min(2000, cycles))
        time.sleep(1)
        before = figures(pid)
        started = time.monotonic()
        done, statuses = churn(publisher, callbacks, cycles)
        elapsed = time.monotonic() - started
        time.sleep(2)  # the last deliveries settle
        report("subscribe/unsubscribe x%d" % done, before, figures(pid), elapsed,
               " ".join("%s: %d" % item for item in sorted(statuses.items())))

        before = figures(pid)
        started = time.monotonic()
        granted, refused, other, renewed, sids = at_cap(publisher, taker.url, attempts)
        elapsed = time.monotonic() - started
        time.sleep(1)
        report("subscribe attempts x%d" % (granted + refused + other), before, figures(pid), elapsed,
               "granted %d, refused 503 %d, other %d; renewals past the cap: %d/%d" %
               (granted, refused, other, renewed, granted))
        for sid in sids:
            publisher.unsubscribe(sid)
        taker.close()
        if env.chd.poll() is not None:
            print("chd exited with %s" % env.chd.returncode)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
