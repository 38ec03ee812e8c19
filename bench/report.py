#!/usr/bin/env python3
"""Summarises one run of kiv_bench (its JSON output).

Prints ns per row for each SQLite workload and contender with the ratios kiv/raw, kiv/floor and
kiv/sqlitecpp, then the thread-service figures; writes the data files for bench/plot.gp and,
with --readme, replaces the part of README.md between the bench markers.

Every figure is the median over the run's repetitions (the single run when there were none),
so all ratios come from contenders measured in the same process, interleaved in time.
"""

import argparse
import datetime
import json
import os
import re
import statistics
import sys
import textwrap

SQLITE_PREFIX = "BM_Sqlite_"
SERVICE_PREFIX = "BM_ThreadService_"
WORKLOADS = ["insert", "scan", "point_select", "rows_each"]
CONTENDERS = ["raw", "floor", "kiv", "sqlitecpp"]
# Thread-service figures: (label, benchmark, counter, scale); each counter has kiv_ and asio_.
SERVICE_FIGURES = [
    ("exec, 1 producer (M jobs/s)", "Exec/producers:1", "items_per_second", 1e-6),
    ("exec, 4 producers (M jobs/s)", "Exec/producers:4", "items_per_second", 1e-6),
    ("1 ms timer lateness, median (us)", "TimerLateness", "lateness_median_us", 1),
    ("1 ms timer lateness, p99 (us)", "TimerLateness", "lateness_p99_us", 1),
]
SERVICE_TARGETS = {"Exec/producers:1": 1.5, "Exec/producers:4": 2.0}
FLOOR_TARGET = 1.05


def medians(benchmarks):
    """{run name: {field: median}} over the iteration runs of each benchmark."""
    runs = {}
    for b in benchmarks:
        if b.get("run_type", "iteration") != "iteration" or b.get("error_occurred"):
            continue
        name = b.get("run_name", b["name"])
        runs.setdefault(name, []).append(b)
    result = {}
    for name, items in runs.items():
        fields = {}
        for key, value in items[0].items():
            if isinstance(value, (int, float)) and not isinstance(value, bool):
                values = [i[key] for i in items if isinstance(i.get(key), (int, float))]
                fields[key] = statistics.median(values)
        fields["repetitions"] = len(items)
        result[name] = fields
    return result


def split_name(name, prefix):
    """'BM_x_group/variant/iterations:5/real_time' -> ('group', 'variant')."""
    parts = name[len(prefix):].split("/")
    return parts[0], (parts[1] if len(parts) > 1 and ":" not in parts[1] else "")


def sqlite_table(runs):
    """{workload: {"ns": {contender: ns per row}, "ratio": {contender: kiv / contender}}}."""
    table = {}
    for name, fields in runs.items():
        if not name.startswith(SQLITE_PREFIX):
            continue
        workload, _ = split_name(name, SQLITE_PREFIX)
        entry = table.setdefault(workload, {"ns": {}, "ratio": {}, "rounds": 0})
        for c in CONTENDERS:
            if f"{c}_ns_per_row" in fields:
                entry["ns"][c] = fields[f"{c}_ns_per_row"]
            if f"kiv/{c}" in fields:
                entry["ratio"][c] = fields[f"kiv/{c}"]
        entry["rounds"] += fields.get("rounds", 0) * fields.get("repetitions", 1)
    return table


def service_rows(benchmarks):
    """[(label, kiv, asio, ratios)]: kiv and asio the medians over the repetitions, ratios the
    per-round kiv/asio spread (min of the minima, median of the medians, max of the maxima), given
    with the first figure of each benchmark."""
    runs = {}
    for b in benchmarks:
        name = b.get("run_name", b["name"])
        if b.get("run_type", "iteration") == "iteration" and name.startswith(SERVICE_PREFIX):
            runs.setdefault(name[len(SERVICE_PREFIX):].replace("/iterations:1", "")
                            .replace("/real_time", ""), []).append(b)
    rows, seen = [], set()
    for label, bench, counter, scale in SERVICE_FIGURES:
        items = runs.get(bench)
        if not items:
            continue
        med = lambda key: statistics.median(i[key] for i in items) if key in items[0] else None
        ratios = None
        if bench not in seen and "kiv/asio_median" in items[0]:
            ratios = (min(i["kiv/asio_min"] for i in items), med("kiv/asio_median"),
                      max(i["kiv/asio_max"] for i in items))
        seen.add(bench)
        rows.append((label, med("kiv_" + counter) * scale, med("asio_" + counter) * scale, ratios))
    return rows


def ratio(a, b):
    return a / b if a is not None and b else None


def fmt(value, digits=1):
    return "-" if value is None else f"{value:.{digits}f}"


def sqlite_lines(table, markdown):
    head = ["workload", "raw", "floor", "kiv", "SQLiteCpp", "kiv/raw", "kiv/floor", "kiv/SQLiteCpp"]
    lines = []
    if markdown:
        lines.append("| " + " | ".join(head) + " |")
        lines.append("|" + "|".join(["---"] + ["---:"] * (len(head) - 1)) + "|")
    else:
        lines.append(f"{head[0]:<14}" + "".join(f"{h:>14}" for h in head[1:]))
    for w in [w for w in WORKLOADS if w in table] + sorted(set(table) - set(WORKLOADS)):
        cells = [fmt(table[w]["ns"].get(c)) for c in CONTENDERS]
        cells += [fmt(table[w]["ratio"].get(c), 3) for c in ("raw", "floor", "sqlitecpp")]
        if markdown:
            lines.append("| " + " | ".join([w.replace("_", " ")] + cells) + " |")
        else:
            lines.append(f"{w:<14}" + "".join(f"{c:>14}" for c in cells))
    return lines


def service_lines(rows, markdown):
    head = ["thread service", "kiv", "Boost.Asio", "kiv/asio per round: median (min-max)"]
    lines = []
    if markdown:
        lines.append("| " + " | ".join(head) + " |")
        lines.append("|---|---:|---:|---:|")
    else:
        lines.append(f"{head[0]:<36}{head[1]:>10}{head[2]:>12}   {head[3]}")
    for label, kiv, asio, r in rows:
        spread = "-" if r is None else f"{r[1]:.2f} ({r[0]:.2f}-{r[2]:.2f})"
        cells = [fmt(kiv, 2), fmt(asio, 2), spread]
        if markdown:
            lines.append("| " + " | ".join([label] + cells) + " |")
        else:
            lines.append(f"{label:<36}{cells[0]:>10}{cells[1]:>12}   {cells[2]}")
    return lines


def write_plot_data(table, rows, directory):
    """Whitespace-separated files for gnuplot; '-' marks a missing figure."""
    with open(os.path.join(directory, "bench_sqlite.dat"), "w") as f:
        f.write("workload raw floor kiv SQLiteCpp\n")
        for w in [w for w in WORKLOADS if w in table]:
            f.write('"%s" ' % w.replace("_", " ") +
                    " ".join(fmt(table[w]["ns"].get(c)) for c in CONTENDERS) + "\n")
    # One line per figure, one column per contender.
    for unit, file_name in (("jobs/s", "bench_service_rate.dat"), ("median", "bench_service_late50.dat"),
                            ("p99", "bench_service_late99.dat")):
        with open(os.path.join(directory, file_name), "w") as f:
            f.write("figure kiv asio\n")
            for label, kiv, asio, _ in rows:
                if unit in label:
                    name = label.split(" (")[0].replace(", median", "").replace(", p99", "")
                    f.write('"%s" %s %s\n' % (name, fmt(kiv, 3), fmt(asio, 3)))


def load_callgrind(json_path):
    """Instructions per row from bench/callgrind.py, if it ran on the binary that made json_path."""
    directory = os.path.dirname(os.path.abspath(json_path))
    path = os.path.join(directory, "bench_callgrind.json")
    binary = os.path.join(directory, "kiv_bench")
    if not os.path.exists(path):
        return {}
    if os.path.exists(binary) and os.path.getmtime(path) < os.path.getmtime(binary):
        return {}  # counted on an older build
    with open(path) as f:
        return json.load(f).get("instructions_per_row", {})


def callgrind_lines(counts, markdown):
    head = ["workload", "raw", "floor", "kiv", "kiv/floor"]
    lines = []
    if markdown:
        lines.append("| instructions per row | raw | floor | kiv | kiv/floor |")
        lines.append("|---|---:|---:|---:|---:|")
    else:
        lines.append(f"{head[0]:<14}" + "".join(f"{h:>14}" for h in head[1:]))
    for w in [w for w in WORKLOADS if w in counts]:
        by = counts[w]
        cells = [fmt(by.get(c), 0) for c in ("raw", "floor", "kiv")]
        cells.append(fmt(ratio(by.get("kiv"), by.get("floor")), 3))
        if markdown:
            lines.append("| " + " | ".join([w.replace("_", " ")] + cells) + " |")
        else:
            lines.append(f"{w:<14}" + "".join(f"{c:>14}" for c in cells))
    return lines


def build_type(json_path):
    """CMAKE_BUILD_TYPE of the build directory that holds the JSON, if it is one."""
    cache = os.path.join(os.path.dirname(os.path.abspath(json_path)), "CMakeCache.txt")
    try:
        with open(cache) as f:
            m = re.search(r"^CMAKE_BUILD_TYPE:\w+=(\S+)", f.read(), re.M)
            return m.group(1) if m else ""
    except OSError:
        return ""


def machine_line(context, build):
    date = context.get("date", datetime.datetime.now().isoformat())[:10]
    parts = [f"on {date}", f"nproc {os.cpu_count()}"]
    try:
        with open("/proc/cpuinfo") as f:
            m = re.search(r"model name\s*:\s*(.+)", f.read())
            if m:
                parts.append(m.group(1).strip())
    except OSError:
        pass
    if build:
        parts.append(f"{build} build")
    return ", ".join(parts)


def readme_block(table, rows, counts, context, build, repetitions, rounds):
    lines = [
        f"Measured {machine_line(context, build)}, with "
        "`sh bench/run.sh build --callgrind --readme`: all figures come from one run of "
        f"`kiv_bench` ({repetitions} repetitions, random order). The machine is shared and "
        "other people's builds ran alongside: single figures move by tens of percent from run "
        "to run, the ratios much less.",
        "",
        "SQLite, nanoseconds per row: 100,000 rows of an integer and a 20-byte text, each "
        "contender with an in-memory database of its own (`:memory:`, `journal_mode=MEMORY`, "
        "`synchronous=OFF`). *raw* is the SQLite C API; *floor* is the C API plus exactly what "
        "this library's interface makes each call do (the handle copied into a function of a "
        "shared library, every check handed to `kiv_assertion_faild` with its three strings "
        "built for the call, a new handle per row for the row callback; the benchmark compares "
        "its assertion calls with the library's before measuring), so kiv/floor is the "
        "library's own overhead (target: at most "
        f"{FLOOR_TARGET:.2f}); *SQLiteCpp* is a C++ wrapper of the usual kind. The contenders "
        f"run in rounds, one pass each, in rotating order ({rounds} rounds or more per "
        "workload); each pass is timed by the thread's CPU clock. The figures are medians of "
        "the passes, the ratios medians of the ratios within a round.",
        "",
    ]
    lines += sqlite_lines(table, markdown=True)
    lines += [
        "",
        "*insert*: bind an integer and a text, step, reset, per row, in one transaction into an "
        "empty table; *scan*: step through the table reading both columns, the text as a "
        "`std::string`; *point select*: bind a key, step, read one column, reset, keys in "
        "scattered order; *rows each*: the scan through `kiv_sqlite_rows_each` (raw and "
        "SQLiteCpp have no row callback and run their plain loop). Most of the distance to raw is "
        "the checks: four per row, each building two strings too long for the short-string "
        "buffer.",
        "",
    ]
    if counts:
        lines += [
            "Instructions per row counted by callgrind (`bench/callgrind.py`), which the load of "
            "the machine cannot disturb:",
            "",
        ]
        lines += callgrind_lines(counts, markdown=True)
        lines.append("")
    if rows:
        lines += [
            "Thread service against Boost.Asio's `io_context` (one worker thread each), measured "
            "in the same run in interleaved rounds (five per repetition, the order alternating): "
            "throughput of empty jobs posted from one and from four threads (1,000,000 per round; "
            "each kiv job carries its caller's file name and line, as the library passes them), "
            "and how late 200 one-shot 1 ms timers per round fire. The ratio column is kiv/asio "
            "within a round (throughput: higher is better, targets "
            f"{SERVICE_TARGETS['Exec/producers:1']}x and {SERVICE_TARGETS['Exec/producers:4']}x; "
            "lateness: lower is better).",
            "",
        ]
        lines += service_lines(rows, markdown=True)
        lines.append("")
    lines += ["![benchmark chart](docs/bench.png)", ""]
    # Prose wrapped like the rest of the README; table lines and code spans stay whole.
    def wrap(line):
        kept = re.sub(r"`[^`]*`", lambda m: m.group(0).replace(" ", "\0"), line)
        return textwrap.fill(kept, 95).replace("\0", " ")
    return "\n".join(l if l.startswith("|") or not l else wrap(l) for l in lines)


def replace_readme(path, block):
    with open(path) as f:
        text = f.read()
    begin, end = "<!-- bench:begin -->", "<!-- bench:end -->"
    i, j = text.find(begin), text.find(end)
    if i < 0 or j < i:
        sys.exit(f"{path}: no {begin} ... {end} markers")
    text = text[: i + len(begin)] + "\n" + block + text[j:]
    with open(path, "w") as f:
        f.write(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("json", help="kiv_bench --benchmark_out file")
    parser.add_argument("--plot-dir", help="write the gnuplot data files here")
    parser.add_argument("--readme", help="update the bench section of this README")
    args = parser.parse_args()

    with open(args.json) as f:
        data = json.load(f)
    runs = medians(data.get("benchmarks", []))
    table = sqlite_table(runs)
    rows = service_rows(data.get("benchmarks", []))
    repetitions = max((r["repetitions"] for r in runs.values()), default=0)
    counts = load_callgrind(args.json)

    rounds = int(min((t["rounds"] for t in table.values()), default=0))
    print(f"ns per row and ratios of kiv to the others: medians of {repetitions} repetitions, "
          f"at least {rounds} rounds of all contenders per workload")
    print("\n".join(sqlite_lines(table, markdown=False)))
    misses = [w for w, t in table.items() if t["ratio"].get("floor", 0) > FLOOR_TARGET]
    if misses:
        print(f"kiv/floor above {FLOOR_TARGET}: " + ", ".join(misses))
    errors = sorted({b.get("run_name", b["name"]) for b in data.get("benchmarks", [])
                     if b.get("error_occurred")})
    for name in errors:
        print(f"failed: {name}")
    if counts:
        print()
        print("instructions per row (callgrind):")
        print("\n".join(callgrind_lines(counts, markdown=False)))
    if rows:
        print()
        print("\n".join(service_lines(rows, markdown=False)))
        bench_of = {f[0]: f[1] for f in SERVICE_FIGURES}
        for label, _, _, r in rows:
            bench = bench_of[label]
            if r and bench in SERVICE_TARGETS and r[1] < SERVICE_TARGETS[bench]:
                print(f"{label}: kiv/asio {r[1]:.2f}, below the target {SERVICE_TARGETS[bench]}")
    if args.plot_dir:
        write_plot_data(table, rows, args.plot_dir)
    if args.readme:
        replace_readme(args.readme, readme_block(table, rows, counts, data.get("context", {}),
                                                  build_type(args.json), repetitions, rounds))
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
