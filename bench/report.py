#!/usr/bin/env python3
"""Writes bench/RESULTS.md from the outputs that bench/run collected in one directory:
<program>.json (Google Benchmark, with repetitions), <program>.txt (its console output, for
the ratio lines the module programs print), instructions.txt (callgrind counts) and
machine.txt. Usage: report.py <directory> <output.md>"""

import json
import pathlib
import statistics
import sys

# Programs whose benchmarks are named <workload>/<library>[/arguments]: one table per workload.
COMPARED = ("record_peers_bench", "transport_peers_bench")
COUNTERS = ("items_per_second", "rx_cpu_us", "rx_io_cpu_us", "rx_syscalls", "cpu_us", "rx_queue_kib")


def load(directory, program):
    data = json.loads((directory / f"{program}.json").read_text())
    runs = {}
    # Repetitions run interleaved; the rows keep the order in which the program declares them.
    ordered = sorted(data["benchmarks"], key=lambda b: (b.get("family_index", 0),
                                                         b.get("per_family_instance_index", 0)))
    for b in ordered:
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        runs.setdefault(b["run_name"], []).append(b)
    return data.get("context", {}), runs


def seconds_per_op(run):
    """Wall time for benchmarks measured in real time (the transport), CPU time otherwise."""
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[run.get("time_unit", "ns")]
    key = "real_time" if run["run_name"].endswith("/real_time") else "cpu_time"
    return run[key] * scale


class Row:
    def __init__(self, name, runs):
        self.name = name
        parts = name.split("/")
        self.workload, self.library = parts[0], parts[1] if len(parts) > 1 else parts[0]
        times = [seconds_per_op(r) for r in runs]
        self.median = statistics.median(times)
        self.spread = (max(times) - min(times)) / self.median if self.median else 0.0
        self.wall = name.endswith("/real_time")
        self.counters = {c: statistics.median(r[c] for r in runs) for c in COUNTERS if c in runs[0]}
        self.count = len(runs)


def show_time(seconds):
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6)):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def show_counter(name, value):
    if name == "items_per_second":
        return f"{value / 1e3:,.1f} k/s"
    return f"{value:.3g}"


def workload_table(rows):
    counters = [c for c in COUNTERS if any(c in r.counters for r in rows)]
    head = ["library", "median / op", "spread", "ratio to best other"] + counters
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for r in rows:
        others = [o.median for o in rows if o is not r]
        ratio = f"{r.median / min(others):.2f}" if others else "-"
        cells = [r.library, show_time(r.median), f"{100 * r.spread:.1f} %", ratio]
        cells += [show_counter(c, r.counters[c]) if c in r.counters else "" for c in counters]
        lines.append("| " + " | ".join(cells) + " |")
    return lines


def find(rows, workload, library):
    for r in rows:
        if r.workload == workload and r.library == library:
            return r
    return None


def targets(rows):
    """Each target of the comparison with its measured ratio (medians of the same run)."""
    out = []

    def check(text, value, ok, detail=""):
        out.append((text, value, ok, detail))

    for size in ("16", "1MiB"):
        for op in ("Write", "Read"):
            ours = find(rows, op + size, "ours")
            if not ours:
                continue
            if size == "16":
                for peer in (r for r in rows if r.workload == op + size and r.library != "ours"):
                    ratio = ours.median / peer.median
                    check(f"{op} 16 pairs: ours faster than {peer.library}", f"{ratio:.2f}x", ratio < 1)
            else:
                floor = find(rows, op + size, "memcpy")
                if floor:
                    ratio = ours.median / floor.median
                    check(f"{op} 1 MiB value: within 1.5x of memcpy", f"{ratio:.2f}x", ratio <= 1.5)
    ours, raw, zmq = (find(rows, "PingPong100B", lib) for lib in ("ours", "raw", "zeromq"))
    if ours and zmq:
        ratio = ours.median / zmq.median
        check("Round trip 100 B: lower than ZeroMQ", f"{ratio:.2f}x", ratio < 1)
    if ours and raw:
        ratio = ours.median / raw.median
        check("Round trip 100 B: within 1.05x of raw", f"{ratio:.2f}x", ratio <= 1.05)
    for size, floor in (("100B", 1.0), ("1MiB", 0.9)):
        ours, raw, zmq = (find(rows, "OneWay" + size, lib) for lib in ("ours", "raw", "zeromq"))
        if not (ours and raw):
            continue
        speed = raw.median / ours.median  # messages per second, ours / raw
        check(f"One-way {size}: at least {floor}x raw's messages per second", f"{speed:.2f}x", speed >= floor)
        if size == "100B" and "rx_cpu_us" in ours.counters:
            cpu = ours.counters["rx_cpu_us"] / raw.counters["rx_cpu_us"]
            check("One-way 100B: receiver CPU per message at most raw's", f"{cpu:.2f}x", cpu <= 1.0)
        if zmq and zmq.median < ours.median:
            check(f"One-way {size}: ZeroMQ faster (for information)", f"{ours.median / zmq.median:.2f}x", None,
                  "ZeroMQ's messages per second over ours")
    batch_targets(rows, check)
    return out


def batch_targets(rows, check):
    """Batched sending of 100-byte messages against ZeroMQ and the raw gathered writes."""
    zmq = find(rows, "OneWay100B", "zeromq")
    for n, suffix in ((1, ""), (8, ""), (64, ""), (64, "-reuse")):
        name = f"ours-batch{n}{suffix}"
        ours, raw = find(rows, "OneWay100B", name), find(rows, "OneWay100B", f"raw-writev{n}")
        if not (ours and raw):
            continue
        speed = raw.median / ours.median
        if n == 64:
            check(f"One-way 100B, {name}: at least 0.8x raw-writev{n}'s messages per second", f"{speed:.2f}x",
                  speed >= 0.8)
        else:
            check(f"One-way 100B, {name}: raw-writev{n}'s messages per second", f"{speed:.2f}x", None,
                  "for information")
        if n != 64 or not zmq:
            continue
        over = zmq.median / ours.median
        check(f"One-way 100B, {name}: at least 2x ZeroMQ's messages per second", f"{over:.2f}x", over >= 2)
        if "rx_cpu_us" in ours.counters and "rx_io_cpu_us" in zmq.counters:
            receiving = zmq.counters["rx_cpu_us"] + zmq.counters["rx_io_cpu_us"]
            cpu = ours.counters["rx_cpu_us"] / receiving
            check(f"One-way 100B, {name}: receiver CPU per message at most ZeroMQ's (its receiving thread and "
                  "I/O thread)", f"{cpu:.2f}x", cpu <= 1)
            alone = ours.counters["rx_cpu_us"] / zmq.counters["rx_cpu_us"]
            check(f"One-way 100B, {name}: receiver CPU per message over ZeroMQ's receiving thread alone",
                  f"{alone:.2f}x", None, "for information: ZeroMQ reads its socket in the I/O thread")


def instructions_table(directory):
    path = directory / "instructions.txt"
    if not path.exists():
        return []
    counts = {}
    for line in path.read_text().split("\n"):
        if line.strip():
            workload, library, per_op = line.split()
            counts.setdefault(workload, {})[library] = float(per_op)
    lines = ["| workload | library | instructions / op | per key-value pair | ratio to best other |",
             "|---|---|---|---|---|"]
    for workload, libraries in counts.items():
        pairs = 16 if workload.endswith("16") else 1
        for library, per_op in libraries.items():
            others = [v for k, v in libraries.items() if k != library]
            ratio = f"{per_op / min(others):.2f}" if others else "-"
            lines.append(f"| {workload} | {library} | {per_op:,.0f} | {per_op / pairs:,.0f} | {ratio} |")
    return lines


def main():
    directory, output = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    md = ["# Benchmark results", "",
          "Written by `bench/run` (Release build); do not edit by hand. Each figure is the median of the",
          "repetitions of one run; *spread* is (max - min) / median over those repetitions; *ratio to",
          "best other* divides a row's median by the lowest median among the other rows of its table",
          "(below 1: faster than all of them). Record workloads are timed in CPU time, transport",
          "workloads in wall time (with CPU time and system calls per message beside).", ""]
    md += ["## Machine", "", "```"] + (directory / "machine.txt").read_text().rstrip().split("\n") + ["```", ""]

    compared_rows = []
    versions = {}
    for program in COMPARED:
        if not (directory / f"{program}.json").exists():
            continue
        context, runs = load(directory, program)
        versions.update({k[len("version "):]: v for k, v in context.items() if k.startswith("version ")})
        compared_rows += [Row(name, r) for name, r in runs.items()]
    md += ["## Library versions", "", "| library | version |", "|---|---|"]
    md += [f"| {k} | {v} |" for k, v in sorted(versions.items())] + [""]

    md += ["## Targets", "", "| target | measured | met |", "|---|---|---|"]
    for text, value, ok, detail in targets(compared_rows):
        met = "-" if ok is None else ("yes" if ok else "**no**")
        md.append(f"| {text} | {value} | {met}{' (' + detail + ')' if detail else ''} |")
    md.append("")

    md += ["## Against established libraries", ""]
    workloads = list(dict.fromkeys(r.workload for r in compared_rows))
    for workload in workloads:
        rows = [r for r in compared_rows if r.workload == workload]
        kind = "wall time" if rows[0].wall else "CPU time"
        md += [f"### {workload} ({kind}, {rows[0].count} repetitions)", ""] + workload_table(rows) + [""]

    instructions = instructions_table(directory)
    if instructions:
        md += ["## Instructions (callgrind)", "",
               "Instructions per operation counted by `valgrind --tool=callgrind` around the measured loop",
               "of `record_instructions` (allocation included). Valgrind replaces memcpy with its own",
               "byte-wise copy, so large copies count about one instruction per byte for every library.", ""]
        md += instructions + [""]

    md += ["## Module benchmarks", ""]
    for json_path in sorted(directory.glob("*.json")):
        program = json_path.stem
        if program in COMPARED:
            continue
        _, runs = load(directory, program)
        md += [f"### {program}", "", "| benchmark | median / op | spread |", "|---|---|---|"]
        md += [f"| {name} | {show_time(row.median)} | {100 * row.spread:.1f} % |"
               for name, row in ((n, Row(n, r)) for n, r in runs.items())]
        text = (directory / f"{program}.txt").read_text().replace("ratio ", "\nratio ")
        ratios = [l for l in text.split("\n") if l.startswith("ratio ")]
        if ratios:
            md += ["", "```"] + ratios + ["```"]
        md.append("")
    output.write_text("\n".join(md))


if __name__ == "__main__":
    main()
