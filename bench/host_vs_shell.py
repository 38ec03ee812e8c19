#!/usr/bin/env python3
"""kiv_host beside the sqlite3 shell: a large result, a long piped script and a CSV import.

Three workloads, each run by the sqlite3 shell and by kiv_host in rounds, the programs of a
workload interleaved and their order rotated each round:
  select  `SELECT * FROM b` on a 2,000,000-row table b(id INTEGER, name TEXT, value REAL,
          n INTEGER), output to /dev/null: the shell in its list mode, kiv_host (aligned table)
          and kiv_host --csv; also how long `| head -3` takes.
  insert  a script of 1,000,000 single-row INSERTs inside one transaction, piped into each
          program on a new database file.
  import  `.import --csv` of a 1,000,000-row CSV file (a quoted field with a comma in every
          row) into a new table of a new database file.
  instructions  callgrind on `SELECT * FROM b LIMIT 200000`: instructions per row of the
          shell, of kiv_host (aligned and --csv), and of kiv_host's own work (its total less
          the library's calls, which include SQLite's), beside the ratio of the totals. Counts do not depend on the
          load of the machine.
Prints per program the wall and CPU time, the ratios of wall and CPU time to the shell's in the
same round (min/median/max over the rounds) and the peak resident memory; for insert and import
also the peak memory with an input a tenth as long, which shows whether memory grows with it.

  python3 bench/host_vs_shell.py [--host build/kiv_host] [--dir build/host-bench]
                                 [--rounds 7] [--workloads select,insert,import,instructions]
Needs the sqlite3 shell, /usr/bin/time and valgrind (Debian packages sqlite3, time, valgrind).
"""
import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import time

ROWS = 2_000_000
LINES = 1_000_000
QUERY = "SELECT * FROM b"
COUNTED_ROWS = 200_000
# An exported function of the library in callgrind_annotate's inclusive listing.
LIBRARY_CALL = re.compile(r"^\s*([\d,]+) \([^)]*\)\s+\S*:kiv_sqlite_\w+.*\[.*libkiv_database[^]]*\]$")
TOTAL = re.compile(r"^\s*([\d,]+) \([^)]*\)\s+PROGRAM TOTALS")
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def make_database(path):
    tmp = path + ".tmp"
    if os.path.exists(tmp):
        os.remove(tmp)
    sql = ("CREATE TABLE b(id INTEGER PRIMARY KEY, name TEXT, value REAL, n INTEGER);"
           "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < %d) "
           "INSERT INTO b SELECT i, 'name-' || (i %% 1000), i / 8.0, i * 7 FROM c;" % ROWS)
    subprocess.run(["sqlite3", tmp, sql], check=True)
    os.replace(tmp, path)


def make_script(path, lines):
    with open(path, "w") as f:
        f.write("CREATE TABLE t(id INTEGER, name TEXT, value REAL);\nBEGIN;\n")
        for i in range(lines):
            f.write("INSERT INTO t VALUES (%d, 'name-%d', %d.5);\n" % (i, i % 1000, i))
        f.write("COMMIT;\n")


def make_csv(path, lines):
    with open(path, "w") as f:
        f.write("id,name,value\n")
        for i in range(lines):
            f.write('%d,"name, %d",%d.5\n' % (i, i % 1000, i))


def run(command, rss_file, stdin=None, fresh=None):
    """Wall seconds, CPU seconds and peak RSS in MB of one run with output to /dev/null. CPU
    time and RSS come from /usr/bin/time: a child forked from Python would count Python's own
    pages in its peak. `fresh` is a database file removed first."""
    if fresh and os.path.exists(fresh):
        os.remove(fresh)
    with open(stdin or os.devnull) as source:
        start = time.perf_counter()
        subprocess.run(["/usr/bin/time", "-f", "%M %U %S", "-o", rss_file] + command, check=True,
                       stdin=source, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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


def callgrind(command, out_file):
    """(total instructions, instructions inside the library's exported calls) of one run."""
    subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out_file] + command, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    listing = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out_file],
                             check=True, capture_output=True, text=True).stdout
    total = library = 0
    for line in listing.splitlines():
        for pattern, add in ((TOTAL, "total"), (LIBRARY_CALL, "library")):
            match = pattern.match(line)
            if match and add == "total":
                total = int(match.group(1).replace(",", ""))
            elif match:
                library += int(match.group(1).replace(",", ""))
    return total, library


def instructions(args):
    """Instructions per row of the shell and kiv_host on the same SELECT, and kiv_host's own."""
    db = os.path.join(args.dir, "big.db")
    query = "%s LIMIT %d" % (QUERY, COUNTED_ROWS)
    shell, _ = callgrind(["sqlite3", db, query], os.path.join(args.dir, "callgrind.shell"))
    per_row = lambda n: n / COUNTED_ROWS
    print("\ninstructions per row (callgrind, %d rows of SELECT * FROM b)" % COUNTED_ROWS)
    print("%-15s %7s %7s %9s %6s" % ("program", "total", "own", "library", "ratio"))
    print("%-15s %7.0f" % ("sqlite3 (list)", per_row(shell)))
    for name, mode in (("kiv_host", "--aligned"), ("kiv_host --csv", "--csv")):
        host, library = callgrind([args.host, mode, "--no-create", db, query], os.path.join(args.dir, "callgrind.host"))
        print("%-15s %7.0f %7.0f %9.0f %6.2f" % (name, per_row(host), per_row(host - library), per_row(library),
                                              host / shell))


def workloads(args):
    """Per workload: {program: (command, stdin, fresh database, the same for a tenth)}."""
    d, host = args.dir, args.host
    db, new = os.path.join(d, "big.db"), os.path.join(d, "new.db")
    script, small_script = os.path.join(d, "insert.sql"), os.path.join(d, "insert-small.sql")
    csv, small_csv = os.path.join(d, "rows.csv"), os.path.join(d, "rows-small.csv")
    if ("select" in args.workloads or "instructions" in args.workloads) and not os.path.exists(db):
        print("creating %s (%d rows) ..." % (db, ROWS), flush=True)
        make_database(db)
    for path, make, lines in ((script, make_script, LINES), (small_script, make_script, LINES // 10),
                              (csv, make_csv, LINES), (small_csv, make_csv, LINES // 10)):
        if not os.path.exists(path):
            make(path, lines)
    imp = lambda f: ".import --csv %s t" % f
    all_loads = {
        "select": {"sqlite3 (list)": (["sqlite3", db, QUERY], None, None, None),
                   "kiv_host": ([host, "--no-create", db, QUERY], None, None, None),
                   "kiv_host --csv": ([host, "--csv", "--no-create", db, QUERY], None, None, None)},
        "insert": {"sqlite3": (["sqlite3", new], script, new, small_script),
                   "kiv_host": ([host, new], script, new, small_script)},
        "import": {"sqlite3": (["sqlite3", new, imp(csv)], None, new, imp(small_csv)),
                   "kiv_host": ([host, new, imp(csv)], None, new, imp(small_csv))},
    }
    return {name: all_loads[name] for name in args.workloads if name in all_loads}


def small_rss(program, rss_file):
    """Peak RSS with the input a tenth as long."""
    command, stdin, fresh, small = program
    if small is None:
        return None
    if stdin:
        return run(command, rss_file, small, fresh)[2]
    return run(command[:-1] + [small], rss_file, None, fresh)[2]


def report(name, programs, times, cpu, rss, rss_file):
    shell = list(programs)[0]

    def ratios(series, p):
        r = [t / s for t, s in zip(series[p], series[shell])]
        return "%.2f/%.2f/%.2f" % (min(r), statistics.median(r), max(r))

    print("\n%s\n%-15s %7s %15s %7s %15s %7s %9s %9s" % (
        name, "", "wall s", "wall ratio", "CPU s", "CPU ratio", "max RSS", "RSS 1/10", "| head -3"))
    print("%-15s %7s %15s %7s %15s %7s %9s %9s" % (
        "program", "median", "min/med/max", "median", "min/med/max", "MB", "MB", "s"))
    for p, program in programs.items():
        small = small_rss(program, rss_file)
        head = head3(program[0]) if name == "select" else None
        print("%-15s %7.2f %15s %7.2f %15s %7.1f %9s %9s" % (
            p, statistics.median(times[p]), ratios(times, p), statistics.median(cpu[p]),
            ratios(cpu, p), max(rss[p]), "-" if small is None else "%.1f" % small,
            "-" if head is None else "%.3f" % head))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--host", default=os.path.join(ROOT, "build", "kiv_host"))
    parser.add_argument("--dir", default=os.path.join(ROOT, "build", "host-bench"))
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--workloads", type=lambda s: s.split(","),
                        default=["select", "insert", "import", "instructions"])
    args = parser.parse_args()
    if shutil.which("sqlite3") is None or not os.access("/usr/bin/time", os.X_OK):
        sys.exit("needs the sqlite3 shell and /usr/bin/time: apt-get install -y sqlite3 time")
    if not os.access(args.host, os.X_OK):
        sys.exit("no %s: build it first (make build)" % args.host)
    os.makedirs(args.dir, exist_ok=True)
    loads = workloads(args)
    rss_file = os.path.join(args.dir, "rss")
    print("machine: %d CPUs, load average %.2f %.2f %.2f" % ((os.cpu_count(),) + os.getloadavg()))
    for name, programs in loads.items():
        names = list(programs)
        command, stdin, fresh, _ = programs[names[0]]
        run(command, rss_file, stdin, fresh)  # the files into the page cache
        times, cpu, rss = ({p: [] for p in names} for _ in range(3))
        for r in range(args.rounds):
            for p in names[r % len(names):] + names[:r % len(names)]:
                command, stdin, fresh, _ = programs[p]
                seconds, cpu_seconds, megabytes = run(command, rss_file, stdin, fresh)
                times[p].append(seconds)
                cpu[p].append(cpu_seconds)
                rss[p].append(megabytes)
            print("%s round %d: %s" % (name, r + 1, ", ".join("%s %.2f s" % (p, cpu[p][-1]) for p in names)),
                  flush=True)
        report(name, programs, times, cpu, rss, rss_file)
    if "instructions" in args.workloads:
        instructions(args)


if __name__ == "__main__":
    main()
