#!/usr/bin/env python3
"""Prints the ours/peer table from a Google Benchmark JSON report.

Benchmarks are named BM_<job>/ours_<variant> and BM_<job>/peer; each of ours
is paired with the peer of its job. Figures are medians of the repetitions,
in MB/s (10^6 bytes per second) of source data. The ratio is our throughput
over the peer's (rounded down): above 1 we are faster. Jobs timed in
wall-clock time (Google Benchmark's UseRealTime, "/real_time" in the name)
are measured in wall-clock seconds, the others in CPU seconds.

Jobs in SCALING have no peer: they run BM_<job>/<n> for several n and report
a complexity fit (their _BigO and _RMS rows). For them a second table shows
the median time for each n, the time per item, how much it grew from the
smallest n, and how much n log n would have grown; the target is growth no
faster than n log n.

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
    "BM_InflateGzip1GiB": None,  # the bounded row reports its peak resident growth
    "BM_ZipExtractAll": 1.8,
    "BM_ZipLookup": 1.0,
    "BM_ZipLookupExact": None,
    "BM_ZipBuild": 1.8,
    "BM_CacheBuffer64M": 0.7,
    "BM_CacheBuffer64MReadWrite": None,
    "BM_Sha1": 0.9,  # the SHA-NI row; the portable row is reported against the same peer
    "BM_Base64Encode": 1.0,
    "BM_Base64Decode": 1.0,
    "BM_SymbolIntern": 1.0,
    "BM_SymbolCopy": 1.0,
    "BM_WildcardMatch": None,
    "BM_FlagSetScan": 1.0,
    "BM_JsonWrite": 0.8,
    "BM_Alloc16": None,
    "BM_Alloc16Threads2": None,
    "BM_RemoteRoundTrip": None,  # a latency target: ours <= 1.2x the peer's time, i.e. ratio >= 0.83
    "BM_TaskPool1M": None,  # within 3x of oneTBB: ratio >= 0.33
    "BM_ParseURL": 1.0,
    "BM_FileSpecFullPath": 1.0,
    "BM_TraceRange": None,  # no peer: ns per range, idle target under 2 ns
}

PEERS = {
    "BM_U32ArrayOtherOrder": "memcpy + bswap32 loop",
    "BM_DoubleScalars": "memcpy per double",
    "BM_TextLines": "std::getline on istringstream",
    "BM_InflateGzip": "one zlib inflate call",
    "BM_InflateGzip1GiB": "zlib gzread, 64 KiB at a time",
    "BM_ZipExtractAll": "libzip zip_fopen_index + zip_fread",
    "BM_ZipLookup": "libzip zip_name_locate(NOCASE) + read",
    "BM_ZipLookupExact": "libzip zip_name_locate (exact) + read",
    "BM_ZipBuild": "libzip zip_file_add into a buffer source",
    "BM_CacheBuffer64M": "cp of a 64 MiB file (process started per copy)",
    "BM_CacheBuffer64MReadWrite": "read()/write() of 1 MiB in process",
    "BM_Sha1": "OpenSSL EVP_Digest(EVP_sha1)",
    "BM_Base64Encode": "OpenSSL EVP_EncodeBlock",
    "BM_Base64Decode": "OpenSSL EVP_DecodeBlock",
    "BM_SymbolIntern": "std::unordered_set<std::string>::find, same FNV-1a hash",
    "BM_SymbolCopy": "copying std::shared_ptr<const std::string>",
    "BM_WildcardMatch": "fnmatch(3) with \"*.txt*\"",
    "BM_FlagSetScan": "std::bitset<1000000> _Find_first/_Find_next",
    "BM_JsonWrite": "RapidJSON PrettyWriter over OStreamWrapper",
    "BM_Alloc16": "malloc(16) + free",
    "BM_Alloc16Threads2": "malloc(16) + free on 2 threads",
    "BM_RemoteRoundTrip": "std::packaged_task on a mutex/condition-variable worker",
    "BM_TaskPool1M": "oneTBB task_group in a task_arena of the same size",
    "BM_ParseURL": "uriparser uriParseSingleUriA + uriFreeUriMembersA",
    "BM_FileSpecFullPath": "std::filesystem::path(p).string()",
}

# Jobs measured against n instead of a peer: what one pass does, how many
# items of n the time is divided by for "per item", and what an item is.
SCALING = {
    "BM_CacheStartup": ("Create + Initialize over n cached files", 1.0, "file"),
    "BM_CacheEvictHalf": ("AddFile of half the total: evicts n/2 files", 0.5, "evicted file"),
}


def FormatTarget(target):
    """0.5 -> "0.5", 1 -> "1.0", 0.95 -> "0.95"."""
    text = f"{target:.2f}".rstrip("0")
    return text + "0" if text.endswith(".") else text


UNIT_NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    """Returns (context, medians, scaling, fits).

    medians: job -> variant -> {"mbps", "ms", "wall"} for the ours/peer jobs;
    scaling: job -> n -> median ms per pass for the jobs in SCALING;
    fits: job -> {"coefficient_ns", "big_o", "rms"} from their _BigO/_RMS rows.
    """
    with open(path) as f:
        report = json.load(f)
    medians, scaling, fits = {}, {}, {}
    for b in report.get("benchmarks", []):
        if b.get("error_occurred"):
            name = b.get("run_name", b["name"])
            print(f"bench_table: {name}: {b.get('error_message', 'error')}", file=sys.stderr)
            continue
        name = b.get("run_name", b["name"])
        parts = name.split("/")
        wall = "real_time" in parts
        aggregate = b.get("aggregate_name") if b.get("run_type") == "aggregate" else None
        if parts[0] in SCALING and aggregate in ("BigO", "RMS"):
            fit = fits.setdefault(parts[0], {})
            if aggregate == "BigO":
                fit["coefficient_ns"] = (b["real_coefficient"] if wall else b["cpu_coefficient"]) \
                    * UNIT_NS[b["time_unit"]]
                fit["big_o"] = b.get("big_o", "?")
            else:
                fit["rms"] = b.get("rms", 0.0)
            continue
        if aggregate is not None and aggregate != "median":
            continue
        if len(parts) < 2:
            continue
        job, variant = parts[0], parts[1]
        ns_per_iter = b["real_time" if wall else "cpu_time"] * UNIT_NS[b["time_unit"]]
        if job in SCALING:
            if variant.isdigit():
                scaling.setdefault(job, {})[int(variant)] = ns_per_iter / 1e6
            continue
        medians.setdefault(job, {})[variant] = {
            # Bytes per second where the job counts bytes, else items per
            # second (symbols interned, flags found, ...).
            "mbps": (b.get("bytes_per_second") or b.get("items_per_second", 0.0)) / 1e6,
            "ms": ns_per_iter / 1e6,
            "wall": wall,
        }
    return report.get("context", {}), medians, scaling, fits


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


HEADER = ["job", "ours", "ours MB/s or M/s", "peer MB/s or M/s", "peer", "ours/peer", "target",
          "status"]


def NLogN(n):
    return n * math.log2(n)


def scaling_rows(scaling):
    """One row per job and n; growth is against the job's smallest n."""
    out = []
    for job in [j for j in SCALING if j in scaling]:
        what, per, item = SCALING[job]
        times = scaling[job]
        base = min(times)
        for n in sorted(times):
            growth = times[n] / times[base]
            allowed = NLogN(n) / NLogN(base)
            if n == base:
                verdict = "-"
            else:
                verdict = "met" if growth <= allowed else "missed"
            out.append([
                job[3:],
                what,
                str(n),
                f"{times[n]:.2f}",
                f"{times[n] * 1e3 / (n * per):.2f} per {item}",
                f"{growth:.2f}",
                f"{allowed:.2f}" if n != base else "-",
                verdict,
            ])
    return out


SCALING_HEADER = ["job", "pass", "n", "ms", "us per item", "growth from smallest n",
                  "n log n growth", "status"]


def fit_lines(fits):
    lines = []
    for job in [j for j in SCALING if j in fits]:
        fit = fits[job]
        coefficient = fit.get("coefficient_ns")
        text = f"{job[3:]}: fitted {coefficient:.1f} ns * n lg n" if coefficient is not None \
            else f"{job[3:]}: no fit"
        if "rms" in fit:
            text += f" (RMS {fit['rms'] * 100:.0f}%)"
        lines.append(text)
    return lines


def print_table(header, table, markdown):
    if markdown:
        print("| " + " | ".join(header) + " |")
        print("|" + "|".join("---" for _ in header) + "|")
        for r in table:
            print("| " + " | ".join(r) + " |")
    else:
        widths = [max(len(str(r[i])) for r in table + [header]) for i in range(len(header))]
        for r in [header] + table:
            print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip())


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    markdown = "--markdown" in sys.argv[1:]
    if len(args) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    context, medians, scaling, fits = load(args[0])
    table = rows(medians)
    scaled = scaling_rows(scaling)
    if not table and not scaled:
        print("bench_table: no ours/peer pairs in the report", file=sys.stderr)
        return 1
    if table:
        print_table(HEADER, table, markdown)
        if not markdown:
            wall = sorted(j[3:] for j, v in medians.items() if any(x["wall"] for x in v.values()))
            print()
            print(f"medians of {context.get('num_cpus', '?')}-CPU run at "
                  f"{context.get('date', '?')}; MB/s = 10^6 bytes of source data per CPU "
                  "second" + (f" (per wall-clock second for {', '.join(wall)})" if wall else "")
                  + "; ours/peer > 1: we are faster")
    if scaled:
        if table:
            print()
        print_table(SCALING_HEADER, scaled, markdown)
        print()
        for line in fit_lines(fits):
            print(line)
        if not markdown:
            print("median CPU time per pass (wall-clock for jobs timed in real time); status: "
                  "met when the time grew no faster than n log n from the smallest n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
