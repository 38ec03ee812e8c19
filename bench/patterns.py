#!/usr/bin/env python3
"""The cost of each usage pattern: instructions per job (callgrind) and jobs per second.

Runs <build>/kiv_pattern_bench: under callgrind twice per contender (JOBS and 3 x JOBS insert
jobs from one producer; the difference divided by 2 x JOBS is the cost of one job, set-up and
shutdown cancelling out), then in interleaved rounds from 1, 2 and 4 producers. Prints the
markdown table; with --readme, writes it into README.md between the patterns markers.
"""

import argparse
import datetime
import os
import re
import subprocess

NAMES = ["queue", "held", "cache", "lookup"]
LABELS = {
    "queue": "plain worker (mutex, condition variable, queue), raw SQLite",
    "held": "held handle and statement (kiv_database_exec)",
    "cache": "a job's own statement cache, filled by one lookup",
    "lookup": "lookup by name per job (prepare, finalize)",
}


def instructions(bench, name, jobs, build):
    """Instructions of a whole run of `jobs` jobs, every thread included."""
    out = os.path.join(build, f"callgrind.out.pattern-{name}-{jobs}")
    subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", bench, "count", name,
                    str(jobs)], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(out) as f:
        for line in f:
            if line.startswith(("totals:", "summary:")):
                return int(line.split()[1])
    raise RuntimeError(f"no totals in {out}")


def per_job(bench, build, jobs):
    return {n: (instructions(bench, n, 3 * jobs, build) - instructions(bench, n, jobs, build)) / (2 * jobs)
            for n in NAMES}


def rounds(bench, count, jobs):
    """{(producers, name): (median, min, max, ratio median, ratio min, ratio max)}"""
    out = subprocess.run([bench, "rounds", str(count), str(jobs)], check=True, capture_output=True,
                         text=True).stdout
    result = {}
    for line in out.splitlines():
        f = line.split()
        if len(f) == 8 and f[0].isdigit():
            result[(int(f[0]), f[1])] = tuple(float(x) for x in f[2:])
    return result


def table(ir, timed, count, jobs):
    lines = [f"| pattern | instructions per job | x plain | "
             + " | ".join(f"{p} producer{'s' if p > 1 else ''}: k jobs/s, x plain" for p in (1, 2, 4)) + " |",
             "|---|---:|---:|" + "---:|" * 3]
    for n in NAMES:
        cells = [LABELS[n], f"{ir[n]:,.0f}" if ir else "-", f"{ir[n] / ir['queue']:.2f}" if ir else "-"]
        for p in (1, 2, 4):
            med, lo, hi, r, rlo, rhi = timed[(p, n)]
            cells.append(f"{med / 1000:,.0f} ({lo / 1000:,.0f}-{hi / 1000:,.0f}), "
                         f"{r:.2f} ({rlo:.2f}-{rhi:.2f})")
        lines.append("| " + " | ".join(cells) + " |")
    load = open("/proc/loadavg").read().split()[:3]
    head = (f"Measured on {datetime.date.today().isoformat()}, nproc {os.cpu_count()}, load average "
            f"{' '.join(load)} at the start, with `sh bench/run.sh build --patterns --readme`: "
            f"instructions per insert job by callgrind (all threads), jobs per second as the median "
            f"(min-max) of {count} interleaved rounds of {jobs:,} jobs, and each pattern's jobs per "
            f"second over the plain worker's in the same round.")
    return head + "\n\n" + "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--jobs", type=int, default=100000)
    parser.add_argument("--callgrind-jobs", type=int, default=5000)
    parser.add_argument("--no-callgrind", action="store_true")
    parser.add_argument("--readme")
    args = parser.parse_args()
    bench = os.path.join(args.build, "kiv_pattern_bench")
    ir = {} if args.no_callgrind else per_job(bench, args.build, args.callgrind_jobs)
    text = table(ir, rounds(bench, args.rounds, args.jobs), args.rounds, args.jobs)
    print(text)
    if args.readme:
        with open(args.readme) as f:
            readme = f.read()
        new, n = re.subn(r"(<!-- patterns:begin -->\n).*?(<!-- patterns:end -->)",
                         lambda m: m.group(1) + text + "\n" + m.group(2), readme, flags=re.S)
        if n != 1:
            raise SystemExit("README has no patterns markers")
        with open(args.readme, "w") as f:
            f.write(new)


if __name__ == "__main__":
    main()
