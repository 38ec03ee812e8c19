#!/usr/bin/env python3
"""Counts the instructions per row of the SQLite workloads under valgrind's callgrind.

Instruction counts do not depend on the load of the machine, so they back the timed ratios
with a figure that a busy machine cannot disturb: each contender's pass (the out-of-line
insert, scan, point_select and rows_each of bench/sqlite_bench.cpp) in the measured rounds is
counted inclusively and divided by its calls and the 100,000 rows of a pass. Writes
<build>/bench_callgrind.json.
"""

import argparse
import json
import os
import re
import subprocess
import sys

ROWS = 100000
CONTENDERS = ["raw", "floor", "kiv"]
WORKLOADS = ["insert", "scan", "point_select", "rows_each"]
# raw_contender::insert, wrapped_contender<floor_api>::scan, wrapped_contender<kiv_api>::...
PASS = re.compile(r"\(anonymous namespace\)::(?:(raw)_contender|wrapped_contender<"
                  r"\(anonymous namespace\)::(floor|kiv)_api>)::"
                  r"(insert|scan|point_select|rows_each)\((?:char const\*)?\)"
                  r"(?: \[clone [^]]*\])* \[")
# The measured passes are called through the lanes that make_lane builds.
MEASURED = re.compile(r"make_lane<")
COST = re.compile(r"^\s*([\d,]+)\s")
CALLS = re.compile(r"\((\d+)x\)")


def passes(annotated):
    """{(contender, workload): (instructions, calls)} of the measured passes in a caller tree.

    Only the passes of the measured rounds count: the pass that fills each database and the
    passes that compare the floor's checks with the library's (through the assertion hook,
    which costs more) have other callers.
    """
    found = {}
    block = []
    for line in annotated.splitlines() + [""]:
        if line.strip():
            block.append(line)
            continue
        own = [l for l in block if re.search(r"\*\s+\S", l) and PASS.search(l)]
        if own:
            m = PASS.search(own[0])
            key = (m.group(1) or m.group(2), m.group(3))
            for l in block:
                if re.search(r"<\s+\S", l) and MEASURED.search(l):
                    cost, calls = found.get(key, (0, 0))
                    found[key] = (cost + int(COST.match(l).group(1).replace(",", "")),
                                  calls + int(CALLS.findall(l)[-1]))
        block = []
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", help="build directory holding kiv_bench")
    args = parser.parse_args()
    bench = os.path.join(args.build, "kiv_bench")
    out = os.path.join(args.build, "callgrind.out.kiv_bench")
    # One round per workload: a round takes far longer than the minimum time under valgrind.
    subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", bench,
                    "--benchmark_filter=BM_Sqlite_", "--benchmark_repetitions=1"],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    annotated = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--tree=caller",
                                "--threshold=100", out],
                               check=True, capture_output=True, text=True).stdout
    found = passes(annotated)
    result = {}
    for w in WORKLOADS:
        for c in CONTENDERS:
            cost, calls = found.get((c, w), (0, 0))
            if calls:
                result.setdefault(w, {})[c] = cost / calls / ROWS
    with open(os.path.join(args.build, "bench_callgrind.json"), "w") as f:
        json.dump({"instructions_per_row": result}, f, indent=1)
    print("instructions per row (callgrind):")
    print(f"{'workload':<14}" + "".join(f"{c:>10}" for c in CONTENDERS) + f"{'kiv/floor':>11}")
    for w, by in result.items():
        ratio = by["kiv"] / by["floor"] if by.get("kiv") and by.get("floor") else None
        print(f"{w:<14}" + "".join(f"{by.get(c, 0):>10.0f}" for c in CONTENDERS) +
              (f"{ratio:>11.4f}" if ratio else f"{'-':>11}"))
    return 0 if result else 1


if __name__ == "__main__":
    sys.exit(main())
