#!/usr/bin/env python3
"""Prints the heap tracer's benchmark table from scripts/bench-heap-trace's
raw outputs.

    scripts/bench_heap_trace_table.py DIR [--markdown]

DIR holds, for each run N, the outputs of bench/heap_trace_workload:
plain.N, oru.N, heaptrack.N (plain under heaptrack), writer.N and capture.N.
Each has one line "heap_trace_workload: key=value ...".

Overheads are per allocation + release pair (two events for either tool):
(loop time of the traced run - loop time of plain in the same run) / pairs.
They are given in wall-clock time (steady_clock around the loop) and in the
allocating thread's CPU time, which the other loads of a shared machine
disturb less. The ratio is ours / heaptrack's, per run; the figure shown is
the median of the runs' ratios. Target: ours <= 1.5x heaptrack's.
"""
import glob
import os
import statistics
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_table import print_table  # noqa: E402  (the same table layout)

TARGET = 1.5


def parse(path):
    with open(path) as f:
        for line in f:
            if line.startswith("heap_trace_workload: "):
                fields = dict(item.split("=", 1) for item in line.split()[1:])
                return {k: (v if k == "mode" else float(v)) for k, v in fields.items()}
    raise SystemExit(f"bench_heap_trace_table: no result line in {path}")


def load(directory):
    runs = {}
    for path in glob.glob(os.path.join(directory, "*.*")):
        mode, _, run = os.path.basename(path).rpartition(".")
        if mode in ("plain", "oru", "heaptrack", "writer", "capture") and run.isdigit():
            runs.setdefault(int(run), {})[mode] = parse(path)
    complete = {n: r for n, r in runs.items() if len(r) == 5}
    if not complete:
        raise SystemExit(f"bench_heap_trace_table: no complete run in {directory}")
    return [complete[n] for n in sorted(complete)]


def per_pair(result, key):
    return result[key] / result["allocations"]


def overhead(run, mode, key):
    """ns per pair that `mode` adds to plain, from the same run."""
    return per_pair(run[mode], key) - per_pair(run["plain"], key)


def row(label, values, fmt="{:.0f}", extra=()):
    return [label] + [fmt.format(v) for v in values] + [fmt.format(statistics.median(values))] \
        + list(extra)


def tables(runs):
    n = len(runs)
    header = ["per allocation + release pair (ns)"] + [f"run {i + 1}" for i in range(n)] \
        + ["median"]
    main = []
    for clock, key in (("wall", "loop_ns"), ("thread CPU", "loop_cpu_ns")):
        plain = [per_pair(r["plain"], key) for r in runs]
        theirs = [overhead(r, "heaptrack", key) for r in runs]
        ours = [overhead(r, "oru", key) for r in runs]
        ratios = [o / t for o, t in zip(ours, theirs)]
        main.append(row(f"plain loop, {clock}", plain))
        main.append(row(f"heaptrack overhead, {clock}", theirs))
        main.append(row(f"ours overhead, {clock}", ours))
        main.append(row(f"ours / heaptrack, {clock}", ratios, "{:.1f}"))
    split = []
    for half, key in (("allocation", "allocate_ns"), ("release", "release_ns")):
        split.append(row(f"heaptrack, {half} half (wall)", [overhead(r, "heaptrack", key)
                                                            for r in runs]))
        split.append(row(f"ours, {half} half (wall)", [overhead(r, "oru", key) for r in runs]))

    writer_header = ["tracer worker"] + [f"run {i + 1}" for i in range(n)] + ["median"]
    writer = []
    oru_events = [2 * r["oru"]["allocations"] for r in runs]
    writer.append(row("oru: drain after the loop (ms)", [r["oru"]["drain_ns"] / 1e6 for r in runs],
                      "{:.1f}"))
    writer.append(row("oru: worker CPU per event (ns)",
                      [r["oru"]["worker_cpu_ns"] / e for r, e in zip(runs, oru_events)]))
    events = [2 * r["writer"]["allocations"] for r in runs]
    writer.append(row("writer: M events/s, first event to destructor's return",
                      [e / r["writer"]["total_ns"] * 1e3 for r, e in zip(runs, events)], "{:.2f}"))
    writer.append(row("writer: M events per worker CPU second",
                      [e / r["writer"]["worker_cpu_ns"] * 1e3 for r, e in zip(runs, events)],
                      "{:.2f}"))
    writer.append(row("writer: producer CPU per event (ns)",
                      [r["writer"]["loop_cpu_ns"] / e for r, e in zip(runs, events)]))
    writer.append(row("writer: drain after the last event (ms)",
                      [r["writer"]["drain_ns"] / 1e6 for r in runs], "{:.1f}"))

    capture_header = ["pieces, per event (ns, thread CPU)"] + [f"run {i + 1}" for i in range(n)] \
        + ["median"]
    c = [r["capture"] for r in runs]
    capture = [
        row(f"backtrace(), {c[0]['backtrace_frames']:.0f} frames",
            [x["backtrace_cpu_ns"] for x in c]),
        row(f"backtrace(), {c[0]['deep_frames']:.0f} frames",
            [x["deep_backtrace_cpu_ns"] for x in c]),
        row("backtrace(), per frame", [x["frame_cpu_ns"] for x in c], "{:.1f}"),
        row(f"StackWalker::CurrentCallstack(), {c[0]['walker_frames']:.0f} frames",
            [x["walker_cpu_ns"] for x in c]),
        row("steady_clock::now()", [x["clock_cpu_ns"] for x in c], "{:.1f}"),
    ]
    return [(header, main), (header, split), (writer_header, writer), (capture_header, capture)]


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    markdown = "--markdown" in sys.argv[1:]
    if len(args) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    runs = load(args[0])
    for header, table in tables(runs):
        print_table(header, table, markdown)
        print()
    ratios = [overhead(r, "oru", "loop_ns") / overhead(r, "heaptrack", "loop_ns") for r in runs]
    cpu_ratios = [overhead(r, "oru", "loop_cpu_ns") / overhead(r, "heaptrack", "loop_cpu_ns")
                  for r in runs]
    wall, cpu = statistics.median(ratios), statistics.median(cpu_ratios)
    verdict = "met" if wall <= TARGET and cpu <= TARGET else "missed"
    print(f"target: ours <= {TARGET}x heaptrack's overhead per pair; median ratio {wall:.1f}x "
          f"(wall), {cpu:.1f}x (thread CPU): {verdict}")
    print(f"{len(runs)} runs of {runs[0]['plain']['allocations']:.0f} allocations; a pair is two "
          "events (an allocation and a release) for both tools")
    return 0


if __name__ == "__main__":
    sys.exit(main())
