#!/usr/bin/env python3
"""Turns one benchmark run into RESULTS.md, threads.png and latency.png: vek_bench's Google
Benchmark JSON, the storage figures it printed, vek_latency's JSON, vek_rss's lines, the
directory of the crash tail's runs (perline-SIDE-ROUND.json and latency-SIDE-ROUND.json for the
sides on and off) and, after run_benchmarks.sh --baseline, the directory of the before-and-after
runs (revs, and the same files for the sides baseline and current).

    report.py BENCH_JSON STORAGE_TXT LATENCY_JSON RSS_TXT OUT_DIR TAIL_DIR [AB_DIR]

RESULTS.md is written whole; the reading of the figures is kept by hand in ANALYSIS.md."""
import glob
import json
import re
import subprocess
import sys
from statistics import median

bench_json, storage_txt, latency_json, rss_txt, out_dir = sys.argv[1:6]
tail_dir = sys.argv[6]
ab_dir = sys.argv[7] if len(sys.argv) > 7 else None
run = json.load(open(bench_json))
storage = open(storage_txt).read()
latency = json.load(open(latency_json))

NOT_MET = "**no**: reason in [ANALYSIS.md](ANALYSIS.md)"


def verdict(met):
    return "yes" if met else NOT_MET


# name -> threads -> median lines per second over all threads
rate = {}
for b in run["benchmarks"]:
    if b.get("aggregate_name") != "median":
        continue
    m = re.match(r"BM_(\w+?)(/print:(\d))?/real_time/threads:(\d+)", b["run_name"])
    name = m.group(1) + ({"0": " (print 0)", "1": " (print on)"}.get(m.group(3), ""))
    rate.setdefault(name, {})[int(m.group(4))] = b["items_per_second"]
repetitions = run["benchmarks"][0]["repetitions"]


def ns(name, threads):
    return 1e9 / rate[name][threads]


labels = {
    "Floor": "floor (clock, localtime_r, getpid, gettid)",
    "Record": "record",
    "VekLogI (print 0)": "__vek_log_i, print threshold 0",
    "VekLogI (print on)": "__vek_log_i, printed to a no-op logger",
    "VekLogIAppendOnly": "__vek_log_i, print threshold 0, the writer only appending",
    "SpdlogSyncRotating": "spdlog 1.10 rotating, synchronous",
    "SpdlogAsyncRotating": "spdlog 1.10 rotating, asynchronous",
    "Glog": "glog 0.6 to a file",
}
rotation = re.search(r"time ratio ([\d.]+), size ratio ([\d.]+)", storage)


def ext4_flush():
    """The flush on an ext4 loop device, synced and not: medians over the rounds, in us."""
    found = {}
    for m in re.finditer(r"^flush on ext4, (synced|not synced), round \d+: .*median (\d+) us, "
                         r"p99 (\d+) us", storage, re.M):
        found.setdefault(m.group(1), []).append((int(m.group(2)), int(m.group(3))))
    if len(found) < 2:
        return "Not measured in this run: it needs root and a loop device."
    rows = ["| flush | median, us | p99, us |", "|---|---|---|"]
    for side in ("not synced", "synced"):
        rows.append(f"| {side} | {median(m for m, _ in found[side]):.0f} | "
                    f"{median(p for _, p in found[side]):.0f} |")
    return "\n".join(rows)
flush = re.search(r"median (\d+) us, p99 (\d+) us", storage)


def row(what, value, target, met):
    return f"| {what} | {value} | {target} | {verdict(met)} |"


vek1 = ns("VekLogI (print 0)", 1)
rows = [
    row("`__vek_log_i` / spdlog synchronous, 1 thread", f"{vek1 / ns('SpdlogSyncRotating', 1):.3f}",
        "<= 1.0", vek1 <= ns("SpdlogSyncRotating", 1)),
    row("`__vek_log_i` / glog, 1 thread", f"{vek1 / ns('Glog', 1):.3f}", "<= 0.2",
        vek1 <= 0.2 * ns("Glog", 1)),
    row("`record` / floor, 1 thread", f"{ns('Record', 1) / ns('Floor', 1):.3f}", "<= 1.15",
        ns("Record", 1) <= 1.15 * ns("Floor", 1)),
    row("`__vek_log_i` - floor, 1 thread", f"{vek1 - ns('Floor', 1):.0f} ns", "<= 100 ns",
        vek1 - ns("Floor", 1) <= 100),
    row("lines/s at 2 threads, `__vek_log_i` / spdlog synchronous",
        f"{rate['VekLogI (print 0)'][2] / rate['SpdlogSyncRotating'][2]:.3f}", ">= 0.9",
        rate["VekLogI (print 0)"][2] >= 0.9 * rate["SpdlogSyncRotating"][2]),
    row("15 MiB rotation time / `gzip -9`", rotation.group(1), "<= 1.1",
        float(rotation.group(1)) <= 1.1),
    row("archive size / `gzip -9`", rotation.group(2), "within 1%",
        abs(float(rotation.group(2)) - 1) <= 0.01),
    row("`__vek_save_log_now` p99, idle writer", f"{flush.group(2)} us", "< 1000 us",
        int(flush.group(2)) < 1000),
]

ctx = run["context"]
model = subprocess.run(["sh", "-c", "grep -m1 'model name' /proc/cpuinfo | cut -d: -f2"],
                       capture_output=True, text=True).stdout.strip()
machine = (f"{model}, {ctx['num_cpus']} CPUs at {ctx['mhz_per_cpu']} MHz, {ctx['date']}, "
           f"load average {ctx['load_avg'][0]:.2f} at the start")

table = ["| logger | 1 thread, ns per line | 2 threads, ns per line (wall clock, both threads) |",
         "|---|---|---|"]
for name, label in labels.items():
    table.append(f"| {label} | {ns(name, 1):.0f} | {ns(name, 2):.0f} |")

breakdown = "\n".join([
    "| step | ns per line, 1 thread |", "|---|---|",
    f"| the floor: clock, `localtime_r`, `getpid`, `gettid` | {ns('Floor', 1):.0f} |",
    "| `record` above the floor: the lock, the header, the copies into the batch and the crash "
    f"tail, the hand-overs | {ns('Record', 1) - ns('Floor', 1):.0f} |",
    "| `__vek_log_i` above `record`: the entry point and the message's printf formatting | "
    f"{vek1 - ns('Record', 1):.0f} |"])

with open(f"{out_dir}/threads.dat", "w") as dat:
    for name in labels:
        dat.write(f"\"{labels[name]}\"\n1 {ns(name, 1):.1f}\n2 {ns(name, 2):.1f}\n\n\n")
subprocess.run(["gnuplot", "-e", f"""
set terminal pngcairo size 900,640 noenhanced; set output '{out_dir}/threads.png';
set title 'ns per line against threads (median; lower is better)';
set xlabel 'threads'; set ylabel 'ns per line, wall clock (log scale)'; set xtics (1, 2);
set xrange [0.7:2.3]; set logscale y; set yrange [100:10000]; set key outside below box;
set grid;
plot for [i=0:{len(labels) - 1}] '{out_dir}/threads.dat' index i with linespoints lw 2 title columnheader(1)
"""], check=True)

# Latency under rotation: one run per (logger, threads) of vek_latency.
MAX_FILE_MIB = 15
latency_labels = {
    "clock": "clock reads alone (overhead)",
    "__vek_log_i": "`__vek_log_i`",
    "spdlog": "spdlog 1.10 rotating, synchronous",
}
runs = {(r["logger"], r["threads"]): r for r in latency["runs"]}
vek_p50 = runs[("__vek_log_i", 1)]["p50"]
spdlog_p50 = runs[("spdlog", 1)]["p50"]
rows.insert(1, row("per-call median (p50) while rotating, `__vek_log_i` / spdlog synchronous, "
                   "1 thread", f"{vek_p50 / spdlog_p50:.3f} ({vek_p50} / {spdlog_p50} ns)",
                   "<= 1.0", vek_p50 <= spdlog_p50))
thread_counts = sorted({r["threads"] for r in latency["runs"]})


def rotations(r):
    return int(r["mib"] // MAX_FILE_MIB)


latency_table = ["| threads | logger | calls | MiB logged (rotations) | p50 | p99 | p99.9 | p99.99 "
                 "| max |", "|---|---|---|---|---|---|---|---|---|"]
for threads in thread_counts:
    for logger, label in latency_labels.items():
        r = runs[(logger, threads)]
        logged = f"{r['mib']:.0f} ({rotations(r)})" if r["mib"] else "-"
        figures = " | ".join(f"{r[k]:,}" for k in ("p50", "p99", "p99.9", "p99.99", "max"))
        latency_table.append(f"| {threads} | {label} | {r['calls']:,} | {logged} | {figures} |")

# Judged only where the run rotated at least twice: the targets hold while rotations happen.
MIN_ROTATIONS = 2


def latency_row(what, threads, show, test):
    vek, peer = runs[("__vek_log_i", threads)], runs[("spdlog", threads)]
    if rotations(vek) < MIN_ROTATIONS:
        met = f"not judged: {rotations(vek)} rotations, too few calls"
    else:
        met = verdict(test(vek))
    return f"| {what} | {threads} | {show(vek)} | {show(peer)} | {met} |"


def tail_ratio(r):
    return f"{r['p99.9'] / r['p50']:.1f} ({r['p99.9']:,} / {r['p50']:,} ns)"


latency_targets = [
    "| target | threads | `__vek_log_i` | spdlog synchronous, for comparison | met |",
    "|---|---|---|---|---|",
]
for threads in (1, 2):
    latency_targets.append(latency_row("p99.9 / p50 <= 10", threads, tail_ratio,
                                       lambda r: r["p99.9"] <= 10 * r["p50"]))
for threads in (1, 2):
    latency_targets.append(latency_row("p99.99 < 100 us", threads, lambda r: f"{r['p99.99']:,} ns",
                                       lambda r: r["p99.99"] < 100000))
latency_targets.append(latency_row("no call over 1 ms (max)", 1, lambda r: f"{r['max']:,} ns",
                                   lambda r: r["max"] <= 1000000))

# Percentile curves: the share of calls at least as slow as each latency, both axes log.
plotted = [(logger, threads) for logger in ("__vek_log_i", "spdlog")
           for threads in thread_counts] + [("clock", 1)]
colours = {"clock": "#888888", "__vek_log_i": "#1f5fbf", "spdlog": "#d03020"}
plot_labels = {"clock": "clock alone", "__vek_log_i": "__vek_log_i", "spdlog": "spdlog sync"}
dashes = {1: 1, 2: 2, 4: 4}
with open(f"{out_dir}/latency.dat", "w") as dat:
    for key in plotted:
        dat.write("".join(f"{x} {share}\n" for x, share in runs[key]["ccdf"]) + "\n\n")
curves = ", ".join(
    f"'{out_dir}/latency.dat' index {i} with lines lw 2 lc rgb '{colours[logger]}' "
    f"dt {dashes.get(threads, 1)} title '{plot_labels[logger]}, "
    f"{threads} thread{'s' if threads > 1 else ''}'"
    for i, (logger, threads) in enumerate(plotted))
smallest_share = min(r["ccdf"][-1][1] for r in latency["runs"])
subprocess.run(["gnuplot", "-e", f"""
set terminal pngcairo size 1000,760 noenhanced; set output '{out_dir}/latency.png';
set title 'Per-call latency while rotating: share of calls at least this slow';
set xlabel 'latency of one call, clock reads included (log scale)';
set ylabel 'share of calls (log scale), as percentile';
set logscale xy; set grid;
set xtics ('10 ns' 1e1, '100 ns' 1e2, '1 us' 1e3, '10 us' 1e4, '100 us' 1e5, '1 ms' 1e6,
           '10 ms' 1e7, '100 ms' 1e8);
set ytics ('all' 1, 'p90' 1e-1, 'p99' 1e-2, 'p99.9' 1e-3, 'p99.99' 1e-4, 'p99.999' 1e-5,
           'p99.9999' 1e-6, 'p99.99999' 1e-7);
set yrange [{smallest_share / 2}:1.5];
set arrow from 1e5, graph 0 to 1e5, graph 1 nohead dt 3 lc rgb '#444444';
set arrow from 1e6, graph 0 to 1e6, graph 1 nohead dt 3 lc rgb '#444444';
set label 'p99.99 target' at 1e5, graph 0.97 right offset -0.5,0 font ',9';
set label 'max target, 1 thread' at 1e6, graph 0.92 right offset -0.5,0 font ',9';
set key outside below center box vertical maxrows 3; set bmargin 8;
plot {curves}
"""], check=True)


def ab_load(directory, kind):
    """side -> the JSON of each round, from the directory's KIND-SIDE-ROUND.json."""
    loaded = {}
    for path in sorted(glob.glob(f"{directory}/{kind}-*-*.json")):
        side = path.rsplit("/", 1)[1].split("-")[1]
        loaded.setdefault(side, []).append(json.load(open(path)))
    return loaded


def ab_row(what, threads, base, cur, target="", met=""):
    figures = f"{base:,.0f} | {cur:,.0f} | {cur / base:.3f}"
    return f"| {what} | {threads} | {figures} | {target} | {met} |"


def per_line_median(runs, name, threads):
    return median(1e9 / b["items_per_second"] for run in runs for b in run["benchmarks"]
                  if b["run_name"].startswith(name + "/") and b["threads"] == threads)


def ab_per_line(perline, sides, limits, names=(("BM_VekLogI", "while rotating"),)):
    rows = []
    for name, what in names:
        for threads in (1, 2):
            base, cur = (per_line_median(perline[side], name, threads) for side in sides)
            rows.append(ab_row(f"`__vek_log_i`, ns per line, {what}", threads, base, cur,
                               f"<= {limits[threads]:.2f}", verdict(cur <= limits[threads] * base)))
    return rows


def ab_per_call(percall, sides, limits, tails_judged):
    rows = []
    for threads in (1, 2):
        base, cur = ([r for run in percall[side] for r in run["runs"] if r["threads"] == threads]
                     for side in sides)
        fewest = min(rotations(r) for r in base + cur)
        for key in ("p50", "p99", "p99.9", "p99.99", "max"):
            b, c = (median(r[key] for r in runs) for runs in (base, cur))
            what = f"per call {key}, ns"
            limit = limits[threads] if key == "p50" else 1.0 if tails_judged else None
            if key not in ("p50", "p99.9", "p99.99") or limit is None:
                rows.append(ab_row(what, threads, b, c))
                continue
            met = (verdict(c <= limit * b) if fewest >= MIN_ROTATIONS
                   else f"not judged: {fewest} rotations, too few calls")
            rows.append(ab_row(what, threads, b, c, f"<= {limit:.2f}", met))
    return rows


def tail_on_off():
    perline, percall = ab_load(tail_dir, "perline"), ab_load(tail_dir, "latency")
    limits = {1: 1.05, 2: 1.05}
    table = ["| figure | threads | tail off | tail on | on / off | target | met |",
             "|---|---|---|---|---|---|---|"] + ab_per_line(
                 perline, ("off", "on"), limits,
                 (("BM_VekLogI", "while rotating"), ("BM_VekLogIAppendOnly", "only appending"))
             ) + ab_per_call(percall, ("off", "on"), limits, False)
    return f"""
## The crash tail on and off

The same build of the library, run alternately with its crash tail and without
(`VEK_NO_CRASH_TAIL`, host builds only), taking turns to go first; each figure is the median
over the rounds. While the writer compresses, a thread logging flat out fills the tail's
1 MiB ring in milliseconds, and the lines it has no room for skip the copy: "only appending"
raises the size limit out of reach, so that the writer keeps up and every line is copied.

- per line: `vek_bench`, print threshold 0; rounds: {len(perline["on"])}
- per call: `vek_latency` while rotating, clock reads included; rounds: {len(percall["on"])}

{chr(10).join(table)}
"""


def before_after():
    if ab_dir is None:
        return ""
    revs = dict(line.split(" ", 1) for line in open(f"{ab_dir}/revs").read().splitlines())
    perline, percall = ab_load(ab_dir, "perline"), ab_load(ab_dir, "latency")
    sides, limits = ("baseline", "current"), {1: 1.05, 2: 1.10}
    table = ["| figure | threads | baseline | current | current / baseline | target | met |",
             "|---|---|---|---|---|---|---|"] + ab_per_line(perline, sides, limits) + ab_per_call(
                 percall, sides, limits, True)
    calls = percall["baseline"][0]["runs"][0]["calls"]
    return f"""
## Before and after

The same benchmark programs, built a second time against the library as the baseline revision
has it. The two builds ran alternately, taking turns to go first, and each figure is the median
over the rounds. A per-call target is judged where every round rotated at least
{MIN_ROTATIONS} times.

- baseline: {revs["baseline"]}
- current: {revs["current"]}
- per line: `__vek_log_i` in `vek_bench`, print threshold 0, at 2 threads the wall clock over
  both threads' lines as in the per-line table; rounds: {len(perline["baseline"])}
- per call: `vek_latency` while rotating, clock reads included, {calls:,} calls at each thread
  count; rounds: {len(percall["baseline"])}

{chr(10).join(table)}
"""


MOMENTS = {
    1: "1: before the first log call",
    2: "2: attached, 1,000 lines logged and flushed",
    3: "3: logged with a flush every 300 lines until the file rotated once",
    4: "4: 200,000 lines logged at once",
}
RSS_LABELS = {"library": "library", "baseline": "library at the baseline",
              "spdlog": "spdlog 1.10 rotating, synchronous"}
rss = {}  # (name, moment) -> VmRSS, RssAnon, RssFile, RssShmem in MiB
for m in re.finditer(r"^rss: (\S+) moment (\d): VmRSS (\d+) kB, RssAnon (\d+) kB, "
                     r"RssFile (\d+) kB, RssShmem (\d+) kB$", open(rss_txt).read(), re.M):
    rss[(m.group(1), int(m.group(2)))] = [int(kib) / 1024 for kib in m.groups()[2:]]
rss_names = [name for name in RSS_LABELS if (name, 1) in rss]


def vm_rss(name, figures, moment2):
    if name == "spdlog":
        return f"{figures[0]:.1f}"
    return f"{figures[0]:.1f} ({figures[0] - moment2[0]:+.1f})"


def rss_parts(name, figures, moment2):
    return " / ".join(f"{mib:.1f}" for mib in figures[1:])


def rss_table(show):
    table = ["| moment | " + " | ".join(RSS_LABELS[n] for n in rss_names) + " |",
             "|---" * (len(rss_names) + 1) + "|"]
    for moment, label in MOMENTS.items():
        cells = (show(n, rss[(n, moment)], rss[(n, 2)]) if (n, moment) in rss
                 else "skipped (--quick)" for n in rss_names)
        table.append(f"| {label} | " + " | ".join(cells) + " |")
    return "\n".join(table)


with open(f"{out_dir}/RESULTS.md", "w") as md:
    md.write(f"""# Benchmark results

Produced by `nfc/common/opensource/VekLogger/tools/run_benchmarks.sh`: every logger writes the
same message to real files in one scratch directory, in one run, on one machine. Each figure of
the per-line table is the median of {repetitions} repetitions run in random order, so that a slow
spell of the machine does not fall on one logger alone. Ratios are what the targets are about;
absolute times belong to this machine: {machine}.

This page is written whole by each run. Why a target is not met, and any other reading of the
figures, is written by hand in [ANALYSIS.md](ANALYSIS.md), which no run changes.

## Targets

| ratio | measured | target | met |
|---|---|---|---|
{chr(10).join(rows)}

## Per line

{chr(10).join(table)}

![ns per line against threads](threads.png)

Where `__vek_log_i`'s time goes, step by step (differences of the medians above):

{breakdown}

## Latency of each call while rotating

`vek_latency`, in the same run, after the figures above, started {latency['date']}. Each
call is timed on its own between two `clock_gettime(CLOCK_MONOTONIC)` reads, at 1, 2 and 4
threads, the calls split evenly between the threads, each thread first making 1,000 untimed
calls. The percentiles are taken over all threads' calls of one run (nearest rank). Every
figure includes one clock read's cost: the "clock reads alone" rows time nothing between the
two reads, for subtracting. `__vek_log_i` records without printing, as in the per-line table.
"MiB logged" is the text of the timed calls; the rotations are that over 15 MiB, rounded down
(a file that starts the run partly full may rotate once more). `__vek_log_i` hands rotation to
its writer thread, which compresses on the same CPUs, while spdlog renames its files inside
the call that fills one. Each `__vek_log_i` run ends by waiting for the writer to finish, so
the next run does not share the CPUs with it. Nanoseconds:

{chr(10).join(latency_table)}

Targets, judged on the figures as measured (clock reads included) for runs that rotated at
least {MIN_ROTATIONS} times:

{chr(10).join(latency_targets)}

![share of calls at least this slow, per logger and thread count](latency.png)
{tail_on_off()}{before_after()}
## Resident memory of an idle process

`vek_rss`, in the same run: each moment in a freshly exec'd process of its own, logging the
benchmarks' line from one thread, recorded and not printed; spdlog's rotating logger does the
same work (15 MiB, five files, flushed where the library flushes). After the work, once every
line is on storage, the process idles 3 s, then reads `VmRSS` from `/proc/self/status`. MiB;
in brackets the library's change from moment 2.

{rss_table(vm_rss)}

The same, split into `RssAnon` / `RssFile` / `RssShmem` (MiB): heap and stacks; mapped files,
the program and its libraries first; shared memory.

{rss_table(rss_parts)}

## Storage

`__vek_save_log_now` with an idle writer, one line before each, on an ext4 file system of its
own (a loop device): a true flush syncs the log file (`fdatasync`) before it returns; "not
synced" is the same build with the sync turned off (`VEK_NO_FLUSH_SYNC`). Medians over three
alternating rounds of 2,000 flushes each:

{ext4_flush()}

```
{storage.strip()}
```
""")
