#!/usr/bin/python3
"""Round trips of NETCONF requests through the switch, measured with
ncclient on 127.0.0.1: a get-config of the whole running configuration,
and an edit-config that the agent applies (a vendor-id change, validated,
delivered to the agent and saved). ncclient's SSH loop looks for requests
to send every 100 ms when nothing arrives, which dominates what a client
sees; the rounds run once as ncclient ships and once with that tick at
1 ms, which shows the switch's own share.

    /usr/bin/python3 bench/netconf_bench.py [--build-dir build/default] [--rounds 200]
"""
import argparse
import os
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e", "netconf"))


def measure(call, rounds):
    times = []
    for _ in range(rounds):
        start = time.perf_counter()
        call()
        times.append((time.perf_counter() - start) * 1000)
    times.sort()
    return statistics.median(times), times[int(len(times) * 0.95) - 1], times[0]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", default=os.path.join(HERE, "..", "build", "default"))
    parser.add_argument("--rounds", type=int, default=200)
    args = parser.parse_args()
    os.environ["PPLUS_BUILD_DIR"] = os.path.abspath(args.build_dir)
    os.environ["PPLUS_SOURCE_DIR"] = os.path.abspath(os.path.join(HERE, ".."))
    import netconf_support as support  # after the folders are known

    switch = support.Switch()
    try:
        import ncclient.transport.ssh as ssh
        vendor = iter(range(1, 1 << 30))
        print("%d rounds each, milliseconds per round trip" % args.rounds)
        for tick in (ssh.TICK, 0.001):
            ssh.TICK = tick
            m = switch.connect()
            rows = [
                ("get-config", lambda: m.get_config("running")),
                ("edit-config", lambda: m.edit_config(target="running", config=support.config(support.plus(
                    "<vendor-id><vendor-id>%d</vendor-id></vendor-id>" % next(vendor))))),
            ]
            for name, call in rows:
                call()  # warm up
                median, p95, best = measure(call, args.rounds)
                print("%-12s client tick %5.1f ms: median %6.2f  p95 %6.2f  best %6.2f" % (
                    name, tick * 1000, median, p95, best))
            m.close_session()
    finally:
        switch.remove()


if __name__ == "__main__":
    main()
