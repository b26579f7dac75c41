#!/usr/bin/env python3
"""Turns one benchmark run (Google Benchmark JSON for a disk-backed and a
memory-backed directory, the memory probes, the machine facts) into a
Markdown report with a chart of write latency.

Usage: report.py RUN_DIR [--notes FILE] [--image-prefix PREFIX]
RUN_DIR holds disk.json, memory.json, mem_startup.json, mem_cycles.json and
machine.json as scripts/bench.sh writes them; report.md and
write_latency.png are written there.
"""
import argparse
import json
import os
import sys

# Targets: (backing, benchmark, counter, "<=" or ">=", limit, text).
TARGETS = (
    [("disk", f"write/size:4096/copies:{k}", "vs_phys_paired", "<=", 1.2,
      f"write 4 KiB × {k}, disk, ÷ physical floor") for k in (1, 2, 4, 8)]
    + [("memory", f"write/size:4096/copies:{k}", "vs_phys_paired", "<=", 1.5,
        f"write 4 KiB × {k}, memory, ÷ physical floor") for k in (1, 2, 4, 8)]
    + [("disk", f"write/size:4096/copies:{k}", "serial_over_parallel_paired", ">=", 1.2,
        f"write 4 KiB × {k}, disk, serial ÷ parallel") for k in (2, 4, 8)]
    + [(b, f"startup/{c}", "parallel_over_serial", "<=", lim, f"start-up 64 × 4, {b}, {c.replace('_', ' ')}, "
        "parallel ÷ serial") for b, lim in (("disk", 0.5), ("memory", 1.5)) for c in ("clean", "stale_copy")]
    + [(b, f"write/size:4096/copies:{k}", "thread_starts_per_1000", "<=", 8,
        f"thread starts per 1,000 writes, 4 KiB × {k}, {b}") for b in ("disk", "memory") for k in (1, 2, 4, 8)]
    + [("disk", f"open_close/copies:{k}", "vs_floor3_paired", "<=", 1.2,
        f"open + close, {k} copies, disk, ÷ 3-round floor") for k in (1, 2, 4, 8)]
    + [("disk", f"write_checksum/size:4096/copies:{k}/{w}", "sum_over_plain_paired", "<=", 1.05,
        f"write 4 KiB × {k}, disk, {w}, with ÷ without checksums") for w in ("append", "overwrite")
       for k in (1, 2, 4, 8)]
    + [(b, "startup/checksum", "sum_over_plain_paired", "<=", 1.2,
        f"start-up 64 × 4, {b}, verifying ÷ not verifying (SBACC_CHECKSUM=0)") for b in ("disk", "memory")]
)
# The targets of the integrity records, listed again under their own section.
CHECKSUM_TARGETS = [t for t in TARGETS if t[1].startswith(("write_checksum/", "startup/checksum"))]
SIZES = [64, 4096, 65536]
COPIES = [1, 2, 4, 8]


def load(path):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return None


def bench_map(doc):
    """name (without the iteration suffix) -> benchmark record"""
    out = {}
    if not doc:
        return out
    for b in doc.get("benchmarks", []):
        name = b.get("run_name", b["name"]).split("/iterations:")[0]
        out[name] = b
    return out


def fmt(v, digits=2):
    if v is None:
        return "–"
    if isinstance(v, str):
        return v
    if isinstance(v, int):
        return f"{v:,}"
    if abs(v) >= 1000:
        return f"{v:,.0f}"
    if abs(v) >= 100:
        return f"{v:.0f}"
    if abs(v) >= 10:
        return f"{v:.1f}"
    return f"{v:.{digits}f}"


def size_label(n):
    return f"{n // 1024} KiB" if n >= 1024 else f"{n} B"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "|".join("---" for _ in head) + "|"]
    for r in rows:
        lines.append("| " + " | ".join(fmt(c) for c in r) + " |")
    return "\n".join(lines)


def verdict(value, limit, op="<="):
    if value is None:
        return "not measured"
    ok = value <= limit if op == "<=" else value >= limit
    return "met" if ok else "**missed**"


def chart(runs, path):
    try:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        return False
    fig, axes = plt.subplots(1, 2, figsize=(12, 4.8), sharey=False)
    colors = {64: "tab:blue", 4096: "tab:orange", 65536: "tab:green"}
    for ax, backing in zip(axes, ["disk", "memory"]):
        m = runs.get(backing, {})
        for size in SIZES:
            lib, des, phy = [], [], []
            for k in COPIES:
                b = m.get(f"write/size:{size}/copies:{k}")
                lib.append(b.get("lib_us") if b else None)
                des.append(b.get("design_us") if b else None)
                phy.append(b.get("phys_us") if b else None)
            if all(v is None for v in lib):
                continue
            c = colors[size]
            ax.plot(COPIES, lib, "o-", color=c, label=f"library {size_label(size)}")
            ax.plot(COPIES, des, "s--", color=c, alpha=0.6, label=f"design floor {size_label(size)}")
            ax.plot(COPIES, phy, "^:", color=c, alpha=0.6, label=f"physical floor {size_label(size)}")
        ctx = docs_ctx(runs, backing)
        ax.set_title(f"{backing}: {ctx.get('sbacc_dir', '?')} ({ctx.get('sbacc_fs', '?')})")
        ax.set_xlabel("copies")
        ax.set_xticks(COPIES)
        ax.set_ylabel("median latency of one write (µs)")
        ax.set_yscale("log")
        ax.grid(True, which="both", alpha=0.3)
    handles, labels = axes[0].get_legend_handles_labels()
    if not handles:
        handles, labels = axes[1].get_legend_handles_labels()
    fig.legend(handles, labels, loc="lower center", ncol=3, fontsize=8)
    fig.suptitle("sbacc_write (4 durable rounds) against its floors")
    fig.tight_layout(rect=(0, 0.14, 1, 0.95))
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return True


_CTX = {}


def docs_ctx(runs, backing):
    return _CTX.get(backing, {})


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("run_dir")
    ap.add_argument("--notes", help="hand-written notes appended to the report")
    ap.add_argument("--image-prefix", default="", help="path prefix of the chart in the Markdown")
    args = ap.parse_args()
    d = args.run_dir

    docs = {"disk": load(os.path.join(d, "disk.json")), "memory": load(os.path.join(d, "memory.json"))}
    runs = {k: bench_map(v) for k, v in docs.items()}
    for k, v in docs.items():
        _CTX[k] = v.get("context", {}) if v else {}
    machine = load(os.path.join(d, "machine.json")) or {}
    startup_probe = load(os.path.join(d, "mem_startup.json"))
    cycles_probe = load(os.path.join(d, "mem_cycles.json"))

    out = []
    out.append("# libsbacc benchmarks")
    out.append("")
    out.append(f"Generated by `scripts/bench.sh` on {machine.get('date', '?')} (commit `{machine.get('commit', '?')}`).")
    out.append("")
    out.append("## Machine")
    out.append("")
    rows = [
        ("CPU", machine.get("cpu_model", "?")),
        ("cores (nproc)", str(machine.get("nproc", "?"))),
        ("memory", machine.get("memory", "?")),
        ("kernel", machine.get("kernel", "?")),
        ("compiler", machine.get("compiler", "?")),
        ("load average before / after", f"{machine.get('load_before', '?')} / {machine.get('load_after', '?')}"),
    ]
    for backing in ("disk", "memory"):
        ctx = _CTX.get(backing, {})
        fs = machine.get(f"{backing}_fs_detail") or ctx.get("sbacc_fs", "?")
        rows.append((f"{backing} directory", f"`{ctx.get('sbacc_dir', '?')}` ({fs})"))
    rows.append(("trace level (MC_TRACE_LEVEL)", str(_CTX.get("disk", {}).get("mc_trace_level", "?")) + ", MC_TRACE_FILE unset"))
    out.append(table(["", ""], rows))
    out.append("")
    out.append("## How to read this")
    out.append("")
    out.append(
        "Every benchmark runs the library call and its floor(s) inside the same loop, one after the other in "
        "rotating order, so both see the same machine at the same moment. Latencies are medians of those "
        "interleaved samples; a ratio is, unless said otherwise, the median over iterations of library ÷ floor "
        "measured back to back in the same iteration. Next to the wall "
        "time, the process CPU time (all threads) spent in each phase is given: on a shared machine a thread "
        "can wait for a core for milliseconds, and the CPU time shows the work the library itself adds "
        "independently of that wait."
    )
    out.append("")
    out.append(
        "* **physical floor**: the same four durable rounds of positioned writes (12 B intent record, the data, "
        "12 B intent clear, 4 B size; each followed by fsync) on K files, issued by K threads that live for the "
        "whole run.\n"
        "* **design floor**: the same rounds, but one thread started per copy for each round, waited for on a "
        "condition — what the earlier thread-per-task design needed; kept for comparison.\n"
        "* Every measured write extends the data, so all four rounds happen; the size is set back outside "
        "the timed region when the area is full.\n"
        "* *thread start delay*: mean time from `pthread_create` to the new thread running, in the design "
        "floor; *pool wake delay*: mean time from the broadcast to a persistent worker running again, in the "
        "physical floor. Their difference is what starting threads per round costs on this machine at this load."
    )
    out.append("")

    # ---- targets
    out.append("## Targets")
    out.append("")
    trows = []
    for backing, name, key, op, limit, text in TARGETS:
        b = runs.get(backing, {}).get(name)
        v = b.get(key) if b else None
        trows.append((text, f"{'≤' if op == '<=' else '≥'} {limit}", v, verdict(v, limit, op)))
    out.append(table(["measure", "target", "measured", "verdict"], trows))
    out.append("")
    out.append("Write and open/close ratios are *paired*: the median over iterations of library ÷ floor measured "
               "back to back in the same iteration, robust against the machine's load drifting during the run. "
               "So are the checksum ratios (with ÷ without records). The parallel ÷ serial start-up ratios are "
               "ratios of medians. Thread starts are counted by the crew during the library's "
               "writes after three warm-up iterations.")
    out.append("")

    # ---- write latency
    out.append("## 1. Write latency against the two floors")
    out.append("")
    if chart(runs, os.path.join(d, "write_latency.png")):
        out.append(f"![write latency against copies and sizes]({args.image_prefix}write_latency.png)")
        out.append("")
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        rows = []
        for size in SIZES:
            for k in COPIES:
                b = m.get(f"write/size:{size}/copies:{k}")
                if not b:
                    continue
                cpu_ratio = (b["lib_cpu_us"] / b["design_cpu_us"]) if b.get("design_cpu_us") else None
                rows.append((size_label(size), k, b.get("lib_us"), b.get("design_us"), b.get("vs_design_paired"),
                             b.get("phys_us"), b.get("vs_phys_paired"), b.get("lib_cpu_us"), b.get("design_cpu_us"),
                             cpu_ratio, b.get("design_start_delay_us"), b.get("phys_wake_delay_us"),
                             int(b.get("samples", 0))))
        if rows:
            out.append(f"### {backing} (`{_CTX[backing].get('sbacc_dir', '?')}`, {_CTX[backing].get('sbacc_fs', '?')})")
            out.append("")
            out.append(table(["size", "copies", "library µs", "design floor µs", "÷ design", "physical floor µs",
                              "÷ physical", "library CPU µs", "design CPU µs", "CPU ÷ design",
                              "thread start delay µs", "pool wake delay µs", "samples"], rows))
            out.append("")
    tr = []
    for backing in ("disk", "memory"):
        b = runs.get(backing, {}).get("write_trace_all/size:4096/copies:4")
        base = runs.get(backing, {}).get("write/size:4096/copies:4")
        if b:
            tr.append((backing, base.get("vs_design_paired") if base else None, b.get("vs_design_paired"),
                       base.get("lib_cpu_us") if base else None, b.get("lib_cpu_us")))
    if tr:
        out.append("Trace cost, 4 KiB × 4 copies: the same write with every trace level let through "
                   "(what an unset MC_TRACE_LEVEL means) against the configured filter.")
        out.append("")
        out.append(table(["backing", "÷ design (filtered)", "÷ design (all levels)", "library CPU µs (filtered)",
                          "library CPU µs (all levels)"], tr))
        out.append("")

    # ---- parallel vs serial
    out.append("## 2. Parallel copies against copies written one after another")
    out.append("")
    out.append("The serial figures are the same `sbacc_write`, with thread start failing (an Env whose "
               "StartThread returns EAGAIN), so every copy is written by the calling thread. "
               "Serial ÷ parallel above 1 means the parallel path wins.")
    out.append("")
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        rows = []
        for size in SIZES:
            for k in COPIES:
                b = m.get(f"write/size:{size}/copies:{k}")
                if b and "serial_us" in b:
                    rows.append((size_label(size), k, b.get("lib_us"), b.get("serial_us"),
                                 b.get("serial_over_parallel_paired"), b.get("lib_cpu_us"), b.get("serial_cpu_us")))
        if rows:
            out.append(f"### {backing}")
            out.append("")
            out.append(table(["size", "copies", "parallel µs", "serial µs", "serial ÷ parallel",
                              "parallel CPU µs", "serial CPU µs"], rows))
            out.append("")

    # ---- open/close
    out.append("## 3. Open and close")
    out.append("")
    out.append("`sbacc_open(\"w\")` + `sbacc_close` against: open K files, read K headers (pread 128), then the "
               "durable header writes with one thread per copy per round — as two rounds (13 B open record; "
               "8 B close stamp + 1 B flag) and as three rounds (the close stamp and the flag separately, "
               "which is what the close does so the stamp is durable before the flag clears).")
    out.append("")
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        rows = []
        for k in COPIES:
            b = m.get(f"open_close/copies:{k}")
            if b:
                rows.append((k, b.get("lib_us"), b.get("floor2_us"), b.get("vs_floor2_paired"), b.get("floor3_us"),
                             b.get("vs_floor3_paired"), int(b.get("samples", 0))))
        if rows:
            out.append(f"### {backing}")
            out.append("")
            out.append(table(["copies", "library µs", "2-round floor µs", "÷ 2-round", "3-round floor µs",
                              "÷ 3-round", "samples"], rows))
            out.append("")

    # ---- startup
    out.append("## 4. Start-up: `sbacc_nv_init` over 64 areas × 4 copies")
    out.append("")
    out.append("Parallel (one crew task per area, one per copy inside) against the serial fall-back (thread start "
               "failing). *stale copy*: before each run copy 3 of every area is made stale (the other copies' "
               "headers record it as fenced off, its data spoiled); the run rebuilds all 64 and the benchmark "
               "checks they were rebuilt. Parallel ÷ serial below 1 means the threads pay off.")
    out.append("")
    rows = []
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        for case in ("clean", "stale_copy"):
            b = m.get(f"startup/{case}")
            if b:
                rows.append((backing, case.replace("_", " "), b.get("parallel_ms"), b.get("serial_ms"),
                             b.get("parallel_over_serial"), b.get("parallel_cpu_ms"), b.get("serial_cpu_ms"),
                             int(b.get("samples", 0))))
    if rows:
        out.append(table(["backing", "case", "parallel ms", "serial ms", "parallel ÷ serial", "parallel CPU ms",
                          "serial CPU ms", "samples"], rows))
        out.append("")

    # ---- repair
    out.append("## 5. Repair throughput")
    out.append("")
    out.append("`sbacc_ma_hddrepair_copy` rebuilding a stale copy of a 1 MiB area, against a loop that copies "
               "the same bytes in the same 2048-byte chunks (pread, pwrite, fsync per chunk, then the header). "
               "*empty* is the same rebuild of an area with no data: the fixed cost (NV bookkeeping, header "
               "copy, the unfencing header write to every copy).")
    out.append("")
    rows = []
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        for case in ("1MiB", "empty"):
            b = m.get(f"repair/{case}")
            if b:
                rows.append((backing, case, b.get("lib_ms"), b.get("floor_ms"), b.get("vs_floor"),
                             b.get("lib_MiBps"), b.get("floor_MiBps"), b.get("lib_cpu_ms"), b.get("floor_cpu_ms"),
                             int(b.get("samples", 0))))
    if rows:
        out.append(table(["backing", "area", "library ms", "floor ms", "÷ floor", "library MiB/s", "floor MiB/s",
                          "library CPU ms", "floor CPU ms", "samples"], rows))
        out.append("")

    # ---- memory
    out.append("## 6. Memory")
    out.append("")
    if startup_probe:
        p = startup_probe
        out.append(f"Start-up over {p['areas']} areas × {p['copies']} copies (`{machine.get('startup_probe_dir', '?')}`), "
                   "in a process of its own; the peak (VmHWM) is reset just before each start-up"
                   + ("" if p.get("peak_reset") else " (reset not available: peak is since process start)") + ".")
        out.append("")
        out.append(table(["", "KiB"], [
            ("resident before", p["rss_before_kib"]),
            ("peak during a clean start-up", p["hwm_clean_kib"]),
            ("peak during a start-up rebuilding 64 copies", p["hwm_stale_kib"]),
            ("peak above resident-before (clean / rebuilding)",
             f"{p['hwm_clean_kib'] - p['rss_before_kib']} / {p['hwm_stale_kib'] - p['rss_before_kib']}"),
            ("resident after", p["rss_after_stale_kib"]),
            ("ru_maxrss of the process", p["ru_maxrss_kib"]),
        ]))
        out.append("")
        out.append(f"Tracked allocator after the start-ups: {p['tracked_bytes_after']} bytes in "
                   f"{p['live_blocks_after']} live block(s) (the area list, kept for the life of the process).")
        out.append("")
    if cycles_probe:
        c = cycles_probe
        s = c["samples"]
        first, last = s[0], s[-1]
        grow_rss = last["rss_kib"] - first["rss_kib"]
        grow_tr = last["tracked_bytes"] - first["tracked_bytes"]
        grow_bl = last["live_blocks"] - first["live_blocks"]
        ok = grow_tr == 0 and grow_bl == 0 and grow_rss <= 256
        out.append(f"{c['cycles']:,} open/write/close cycles (2 copies, 64 B write) on {c.get('dir_fs', '?')}, "
                   f"after {c['warmup']:,} warm-up cycles, SBACC_ALLOC_TRACK={c['track_switch']}: "
                   f"tracked bytes {first['tracked_bytes']} → {last['tracked_bytes']}, live blocks "
                   f"{first['live_blocks']} → {last['live_blocks']}, VmRSS {first['rss_kib']} → {last['rss_kib']} KiB "
                   f"({last['seconds']:.0f} s, {1e6 * last['seconds'] / max(1, last['cycles']):.0f} µs per cycle). "
                   f"Growth: **{'none' if ok else 'yes'}**.")
        out.append("")
        out.append(table(["cycles", "tracked bytes", "live blocks", "VmRSS KiB", "seconds"],
                         [(x["cycles"], x["tracked_bytes"], x["live_blocks"], x["rss_kib"], x["seconds"]) for x in s]))
        out.append("")

    # ---- integrity records
    out.append("## 7. Integrity records: with checksums against without")
    out.append("")
    out.append("Each pair is measured back to back in the same iteration, in rotating order; the variant without "
               "records runs with `SBACC_CHECKSUM=0`, which the library reads when a handle is made. "
               "The ratio is the median over iterations of with ÷ without.")
    out.append("")
    out.append("* **write**: `sbacc_write` of 4 KiB through a handle with records and one without, on two areas a "
               "and b of the same shape (a handle without records unbinds the area's record, so two handles on one "
               "area would make the other one recompute it from the data). Two areas of one shape are not equally "
               "fast (with records off on both, one 8-copy area of this layout measured 10 % slower than the other "
               "on ext4), so the records are on a for the first half of the iterations and on b for the second; "
               "the ratio is the geometric mean of the two halves' paired medians (*on a*, *on b*), which cancels "
               "what belongs to the area. *append* extends the data (four durable "
               "rounds; the record is extended from the new bytes); *overwrite* lands at a 4 KiB boundary inside "
               "64 KiB of data (three rounds; with records the old 4 KiB are read first). With records the intent "
               "writes are 48 B instead of 12 B and the size write carries a second piece; no extra flush.\n"
               "* **first read**: `sbacc_open(\"r\")`, one `sbacc_read` of the whole area, `sbacc_close`, 2 copies. "
               "With records the read first reads the copy once more to check it against its record.\n"
               "* **start-up**: `sbacc_nv_init` over 64 areas × 4 copies of 4 KiB data each, parallel; with records "
               "it reads and checks the data of every copy, without them it reads headers only. Every run starts "
               "from the same images (put back outside the timed region): a start-up without records counts as "
               "an open that unbinds them.")
    out.append("")
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        rows = []
        for w in ("append", "overwrite"):
            for k in COPIES:
                b = m.get(f"write_checksum/size:4096/copies:{k}/{w}")
                if b:
                    rows.append((w, k, b.get("sum_us"), b.get("plain_us"), b.get("sum_over_plain_paired"),
                                 b.get("sum_over_plain_paired_a"), b.get("sum_over_plain_paired_b"),
                                 b.get("sum_cpu_us"), b.get("plain_cpu_us"), int(b.get("samples", 0))))
        if rows:
            out.append(f"### write 4 KiB, {backing}")
            out.append("")
            out.append(table(["write", "copies", "with µs", "without µs", "with ÷ without", "on a", "on b",
                              "with CPU µs", "without CPU µs", "samples"], rows))
            out.append("")
    rows = []
    for backing in ("disk", "memory"):
        m = runs.get(backing, {})
        for size in (4096, 65536):
            b = m.get(f"first_read/size:{size}")
            if b:
                rows.append((backing, size_label(size), b.get("sum_us"), b.get("plain_us"),
                             (b["sum_us"] - b["plain_us"]) if "sum_us" in b and "plain_us" in b else None,
                             b.get("sum_over_plain_paired"), b.get("sum_cpu_us"), b.get("plain_cpu_us"),
                             int(b.get("samples", 0))))
    if rows:
        out.append("### First read in read mode (open, read the whole area, close)")
        out.append("")
        out.append(table(["backing", "area", "with µs", "without µs", "difference µs", "with ÷ without",
                          "with CPU µs", "without CPU µs", "samples"], rows))
        out.append("")
    rows = []
    for backing in ("disk", "memory"):
        b = runs.get(backing, {}).get("startup/checksum")
        if b:
            rows.append((backing, b.get("sum_ms"), b.get("plain_ms"), b.get("sum_over_plain_paired"),
                         b.get("sum_cpu_ms"), b.get("plain_cpu_ms"), int(b.get("samples", 0))))
    if rows:
        out.append("### Start-up, 64 areas × 4 copies")
        out.append("")
        out.append(table(["backing", "verifying ms", "not verifying ms", "verifying ÷ not", "verifying CPU ms",
                          "not verifying CPU ms", "samples"], rows))
        out.append("")
    missed, unmeasured = [], []
    for backing, name, key, op, limit, text in CHECKSUM_TARGETS:
        b = runs.get(backing, {}).get(name)
        v = b.get(key) if b else None
        if v is None:
            unmeasured.append(text)
        elif verdict(v, limit, op) != "met":
            missed.append(f"{text}: {fmt(v)} (target {'≤' if op == '<=' else '≥'} {limit})")
    if missed:
        out.append(f"**Missed in this run** ({len(missed)} of {len(CHECKSUM_TARGETS)} checksum targets): "
                   + "; ".join(missed) + ".")
    elif not unmeasured:
        out.append(f"All {len(CHECKSUM_TARGETS)} checksum targets were met in this run.")
    if unmeasured:
        out.append("Not measured: " + "; ".join(unmeasured) + ".")
    out.append("")

    if args.notes and os.path.exists(args.notes):
        with open(args.notes) as f:
            out.append(f.read().rstrip())
            out.append("")

    out.append("## Reproduce")
    out.append("")
    out.append("```sh\nscripts/bench.sh            # full run, about 5-10 minutes on 2 cores\n"
               "scripts/bench.sh --quick    # a short smoke run\n```")
    out.append("")
    with open(os.path.join(d, "report.md"), "w") as f:
        f.write("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
