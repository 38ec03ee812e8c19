#!/usr/bin/env python3
"""kiv_host beside the sqlite3 shell on one large result.

Builds (once) a database with a 2,000,000-row table b(id INTEGER, name TEXT, value REAL,
n INTEGER), then runs `SELECT * FROM b` in rounds, the three programs interleaved and their
order rotated each round: the sqlite3 shell in its default list mode, kiv_host (aligned table)
and kiv_host --csv, all writing to /dev/null. Prints per program the wall and CPU time, the peak
resident memory, the ratios of wall and CPU time to the shell's in the same round
(min/median/max over the rounds), and how long `| head -3` takes for each.

  python3 bench/host_vs_shell.py [--host build/kiv_host] [--db build/host-bench/big.db]
                                 [--rounds 7]
Needs the sqlite3 shell and /usr/bin/time (Debian packages sqlite3 and time).
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import time

ROWS = 2_000_000
QUERY = "SELECT * FROM b"
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def make_database(path):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    tmp = path + ".tmp"
    if os.path.exists(tmp):
        os.remove(tmp)
    sql = ("CREATE TABLE b(id INTEGER PRIMARY KEY, name TEXT, value REAL, n INTEGER);"
           "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < %d) "
           "INSERT INTO b SELECT i, 'name-' || (i %% 1000), i / 8.0, i * 7 FROM c;" % ROWS)
    subprocess.run(["sqlite3", tmp, sql], check=True)
    os.replace(tmp, path)


def run(command, rss_file):
    """Wall seconds, CPU seconds and peak RSS in MB of one run with output to /dev/null. CPU
    time and RSS come from /usr/bin/time: a child forked from Python would count Python's own
    pages in its peak."""
    start = time.perf_counter()
    subprocess.run(["/usr/bin/time", "-f", "%M %U %S", "-o", rss_file] + command, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    elapsed = time.perf_counter() - start
    with open(rss_file) as f:
        kilobytes, user, system = f.read().split()[-3:]
    return elapsed, float(user) + float(system), int(kilobytes) / 1024.0


def head3(command):
    """Seconds until `command | head -3` is over: three lines read, the pipe closed, and the
    program gone."""
    start = time.perf_counter()
    child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    for _ in range(3):
        child.stdout.readline()
    child.stdout.close()
    child.wait()
    return time.perf_counter() - start


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default=os.path.join(ROOT, "build", "kiv_host"))
    parser.add_argument("--db", default=os.path.join(ROOT, "build", "host-bench", "big.db"))
    parser.add_argument("--rounds", type=int, default=7)
    args = parser.parse_args()
    if shutil.which("sqlite3") is None or not os.access("/usr/bin/time", os.X_OK):
        sys.exit("needs the sqlite3 shell and /usr/bin/time: apt-get install -y sqlite3 time")
    if not os.access(args.host, os.X_OK):
        sys.exit("no %s: build it first (make build)" % args.host)
    if not os.path.exists(args.db):
        print("creating %s (%d rows) ..." % (args.db, ROWS), flush=True)
        make_database(args.db)

    programs = {
        "sqlite3 (list)": ["sqlite3", args.db, QUERY],
        "kiv_host": [args.host, "--no-create", args.db, QUERY],
        "kiv_host --csv": [args.host, "--csv", "--no-create", args.db, QUERY],
    }
    names = list(programs)
    rss_file = args.db + ".rss"
    run(programs[names[0]], rss_file)  # the file into the page cache
    times = {name: [] for name in names}
    cpu = {name: [] for name in names}
    rss = {name: [] for name in names}
    print("machine: %d CPUs, load average %.2f %.2f %.2f" % ((os.cpu_count(),) + os.getloadavg()))
    for r in range(args.rounds):
        order = names[r % len(names):] + names[:r % len(names)]
        for name in order:
            seconds, cpu_seconds, megabytes = run(programs[name], rss_file)
            times[name].append(seconds)
            cpu[name].append(cpu_seconds)
            rss[name].append(megabytes)
        print("round %d: %s" % (r + 1, ", ".join("%s %.2f s" % (n, times[n][-1]) for n in names)),
              flush=True)

    shell = names[0]

    def ratios(series, name):
        r = [t / s for t, s in zip(series[name], series[shell])]
        return "%.2f/%.2f/%.2f" % (min(r), statistics.median(r), max(r))

    print("\n%-15s %7s %15s %7s %15s %7s %10s" % ("", "wall s", "wall ratio", "CPU s", "CPU ratio",
                                                 "max RSS", "| head -3"))
    print("%-15s %7s %15s %7s %15s %7s %10s" % ("program", "median", "min/median/max", "median",
                                                 "min/median/max", "MB", "s"))
    for name in names:
        print("%-15s %7.2f %15s %7.2f %15s %7.1f %10.3f" % (
            name, statistics.median(times[name]), ratios(times, name), statistics.median(cpu[name]),
            ratios(cpu, name), max(rss[name]), head3(programs[name])))


if __name__ == "__main__":
    main()
