#!/usr/bin/env python3
"""Prints the ours/peer table from a Google Benchmark JSON report.

Benchmarks are named BM_<job>/ours_<variant> and BM_<job>/peer; each of ours
is paired with the peer of its job. Figures are medians of the repetitions,
in MB/s (10^6 bytes per second) of source data. The ratio is our throughput
over the peer's (rounded down): above 1 we are faster.

    scripts/bench_table.py build/release/bench/results.json [--markdown]
"""
import json
import math
import sys

# Minimum ratio ours/peer each job must reach (None: measured, no target).
TARGETS = {
    "BM_U32ArrayOtherOrder": 0.5,
    "BM_DoubleScalars": None,
    "BM_TextLines": 1.0,
    "BM_InflateGzip": 0.9,
    "BM_ZipExtractAll": 0.95,
    "BM_ZipLookup": 1.0,
    "BM_ZipLookupExact": None,
    "BM_ZipBuild": 0.9,
}

PEERS = {
    "BM_U32ArrayOtherOrder": "memcpy + bswap32 loop",
    "BM_DoubleScalars": "memcpy per double",
    "BM_TextLines": "std::getline on istringstream",
    "BM_InflateGzip": "one zlib inflate call",
    "BM_ZipExtractAll": "libzip zip_fopen_index + zip_fread",
    "BM_ZipLookup": "libzip zip_name_locate(NOCASE) + read",
    "BM_ZipLookupExact": "libzip zip_name_locate (exact) + read",
    "BM_ZipBuild": "libzip zip_file_add into a buffer source",
}


def FormatTarget(target):
    """0.5 -> "0.5", 1 -> "1.0", 0.95 -> "0.95"."""
    text = f"{target:.2f}".rstrip("0")
    return text + "0" if text.endswith(".") else text


def load(path):
    with open(path) as f:
        report = json.load(f)
    medians = {}
    for b in report.get("benchmarks", []):
        if b.get("error_occurred"):
            name = b.get("run_name", b["name"])
            print(f"bench_table: {name}: {b.get('error_message', 'error')}", file=sys.stderr)
            continue
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        name = b.get("run_name", b["name"])
        parts = name.split("/")
        if len(parts) < 2:
            continue
        job, variant = parts[0], parts[1]
        ns_per_iter = b["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
        medians.setdefault(job, {})[variant] = {
            "mbps": b.get("bytes_per_second", 0.0) / 1e6,
            "ms": ns_per_iter / 1e6,
        }
    return report.get("context", {}), medians


def rows(medians):
    out = []
    for job in sorted(medians, key=lambda j: list(TARGETS).index(j) if j in TARGETS else 99):
        variants = medians[job]
        peer = variants.get("peer")
        for variant in sorted(v for v in variants if v.startswith("ours")):
            ours = variants[variant]
            ratio = ours["mbps"] / peer["mbps"] if peer and peer["mbps"] > 0 else None
            target = TARGETS.get(job)
            if target is None or ratio is None:
                verdict = "-"
            else:
                verdict = "met" if ratio >= target else "missed"
            out.append([
                job[3:] if job.startswith("BM_") else job,
                variant[5:] if variant.startswith("ours_") else variant,
                f"{ours['mbps']:.0f}",
                f"{peer['mbps']:.0f}" if peer else "-",
                PEERS.get(job, "peer"),
                # Rounded down, so that a ratio shown as meeting a target does.
                f"{math.floor(ratio * 100) / 100:.2f}" if ratio is not None else "-",
                f">= {FormatTarget(target)}" if target is not None else "none",
                verdict,
            ])
    return out


HEADER = ["job", "ours", "ours MB/s", "peer MB/s", "peer", "ours/peer", "target", "status"]


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    markdown = "--markdown" in sys.argv[1:]
    if len(args) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    context, medians = load(args[0])
    table = rows(medians)
    if not table:
        print("bench_table: no ours/peer pairs in the report", file=sys.stderr)
        return 1
    if markdown:
        print("| " + " | ".join(HEADER) + " |")
        print("|" + "|".join("---" for _ in HEADER) + "|")
        for r in table:
            print("| " + " | ".join(r) + " |")
    else:
        widths = [max(len(str(r[i])) for r in table + [HEADER]) for i in range(len(HEADER))]
        for r in [HEADER] + table:
            print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())
        print()
        print(f"medians of {context.get('num_cpus', '?')}-CPU run at {context.get('date', '?')}; "
              "MB/s = 10^6 bytes of source data per CPU second; ours/peer > 1: we are faster")
    return 0


if __name__ == "__main__":
    sys.exit(main())
