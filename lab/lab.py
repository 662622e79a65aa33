"""Runs the lab's scenarios and writes lab/results/<scenario>.json and BENCHMARKS.md.

    lab.py [--smoke] [--results DIR] [SCENARIO ...]

--smoke runs a short subset (one short aggregation run, one failover, the restart) and
exits non-zero when a check fails; the full lab reports failed targets without failing.
"""
import argparse
import datetime
import json
import os
import platform
import sys
import tempfile
import time

import report
import scenarios

FULL = dict(seconds=20, runs=5, dual_runs=3, lock_in_runs=7, failover_cases=4, reconnects=20,
            soak_seconds=600)
SMOKE = dict(seconds=8, runs=1, dual_runs=1, lock_in_runs=1, failover_cases=1, reconnects=2,
             soak_seconds=30)
SMOKE_SCENARIOS = ["aggregation", "failover", "restart"]


def machine():
    cpu = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo")
                if line.startswith("model name")), platform.machine())
    return "%s %s, %d cores (%s)" % (platform.system(), platform.release(), os.cpu_count(), cpu)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("--soak-seconds", type=int, help="length of the soak (default 600)")
    parser.add_argument("--build", default="build")
    parser.add_argument("--results", default=os.path.join(os.path.dirname(__file__), "results"))
    parser.add_argument("names", nargs="*", metavar="SCENARIO")
    args = parser.parse_args()
    names = args.names or (SMOKE_SCENARIOS if args.smoke else list(scenarios.SCENARIOS))
    options = argparse.Namespace(**(SMOKE if args.smoke else FULL))
    if args.soak_seconds:
        options.soak_seconds = args.soak_seconds
    build = os.path.abspath(args.build)
    os.makedirs(args.results, exist_ok=True)
    failed = []
    for name in names:
        order, title, run = scenarios.SCENARIOS[name]
        began = time.time()
        print("== lab: %s" % name, flush=True)
        with tempfile.TemporaryDirectory(prefix="vekt-lab-") as work:
            try:
                result = run(build, work, options)
            except Exception:
                logs = {f: open(os.path.join(work, f), errors="replace").read()[-3000:]
                        for f in sorted(os.listdir(work)) if f.endswith(".log")}
                for f, text in logs.items():
                    print("---- %s (end)\n%s" % (f, text))
                raise
        result.update(order=order, title=title, machine=machine(),
                      command="sudo lab/run %s%s" % ("--smoke " if args.smoke else "", name),
                      date=datetime.datetime.utcnow().strftime("%Y-%m-%d %H:%M UTC"),
                      passed=all(c["ok"] for c in result["checks"]))
        with open(os.path.join(args.results, name + ".json"), "w") as out:
            json.dump(result, out, indent=1)
        for line in result["summary"]:
            print("   " + line)
        for c in result["checks"]:
            print("   %s %s (%s)" % ("ok  " if c["ok"] else "FAIL", c["what"], c["value"]))
        print("== lab: %s took %d s" % (name, time.time() - began), flush=True)
        if not all(c["ok"] or (args.smoke and c.get("figure")) for c in result["checks"]):
            failed.append(name)
    if not args.smoke:
        report.write_report(args.results, os.path.join(os.path.dirname(os.path.abspath(
            __file__)), "..", "BENCHMARKS.md"))
    if failed:
        print("== lab: targets missed in: " + ", ".join(failed))
    return 1 if failed and args.smoke else 0


if __name__ == "__main__":
    sys.exit(main())
