#!/usr/bin/python3
"""Turns the JSON of the benchmark programs into the figures of docs/performance.md.

    bench/report.py RESULTS_DIR DOCS_DIR

Reads RESULTS_DIR/<program>.json (Google Benchmark's --benchmark_out format), rewrites the part
of DOCS_DIR/performance.md between the markers <!-- figures:begin --> and <!-- figures:end -->
with the machine, the tables and the goals, and draws DOCS_DIR/performance.png. Needs
matplotlib (Debian: python3-matplotlib). Only reports: it never fails on a slow figure.
"""
import json
import os
import platform
import re
import subprocess
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

BEGIN = "<!-- figures:begin -->"
END = "<!-- figures:end -->"


def load(results):
    """{base name: {arg or None: benchmark record}} over every program's JSON, plus contexts.
    A benchmark run several times is represented by its median."""
    runs, contexts = {}, {}
    for name in sorted(os.listdir(results)):
        if not name.endswith(".json"):
            continue
        with open(os.path.join(results, name)) as f:
            data = json.load(f)
        contexts[name[:-5]] = data.get("context", {})
        benchmarks = data.get("benchmarks", [])
        medians = {b["run_name"]: b for b in benchmarks
                   if b.get("run_type") == "aggregate" and b.get("aggregate_name") == "median"}
        for b in benchmarks:
            if b.get("run_type", "iteration") != "iteration" or b.get("error_occurred"):
                continue
            b = medians.get(b.get("run_name"), b)
            parts = b["name"].split("/")
            arg = int(parts[1]) if len(parts) > 1 and parts[1].isdigit() else None
            if ("Fires" in parts[0] or "Descriptors" in parts[0]) and b.get("fired_per_pass", 1.0) < 0.5:
                continue  # the pass did not do what it measures: no figure rather than a wrong one
            runs.setdefault(parts[0], {})[arg] = b
    return runs, contexts


def ns(b):
    """Time per iteration in nanoseconds: real time for the cross-thread benchmarks, CPU time of
    the benchmark thread for the single-threaded ones (other processes on the machine then do
    not count)."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
    return b["real_time" if "real_time" in b["name"] else "cpu_time"] * scale


def per_item_ns(b):
    return 1e9 / b["items_per_second"] if b.get("items_per_second") else float("nan")


def get(runs, name, arg=None, key=None):
    b = runs.get(name, {}).get(arg)
    if b is None:
        return float("nan")
    if key is None:
        return b
    return b.get(key, float("nan"))


def fmt_rate(v):
    if v != v:
        return "n/a"
    for unit, div in (("G", 1e9), ("M", 1e6), ("k", 1e3)):
        if v >= div:
            return f"{v / div:.2f} {unit}"
    return f"{v:.0f}"


def fmt_ns(v):
    if v != v:
        return "n/a"
    if v >= 1e6:
        return f"{v / 1e6:.2f} ms"
    if v >= 1e3:
        return f"{v / 1e3:.2f} µs"
    return f"{v:.0f} ns"


def machine(contexts):
    ctx = next(iter(contexts.values()), {})
    model = "unknown CPU"
    try:
        out = subprocess.run(["lscpu"], capture_output=True, text=True, check=False).stdout
        m = re.search(r"Model name:\s*(.+)", out)
        if m:
            model = m.group(1).strip()
    except OSError:
        pass
    caches = ", ".join(f"L{c['level']} {c['type'].lower()} {c['size'] // 1024} KiB"
                       for c in ctx.get("caches", []))
    return [
        f"- CPU: {model}, {ctx.get('num_cpus', '?')} cores at {ctx.get('mhz_per_cpu', '?')} MHz"
        f" ({caches})" if caches else f"- CPU: {model}",
        f"- Kernel: {platform.system()} {platform.release()}; load average at the start of the"
        f" run: {', '.join(f'{x:.2f}' for x in ctx.get('load_avg', []))}",
        f"- Run: {ctx.get('date', '?')}, Google Benchmark {ctx.get('library_version', '')}".rstrip(", "),
    ]


def road_table(runs):
    rows = ["| road | throughput (events/s) | library vs it | p50 latency | p99 latency |",
            "|---|---|---|---|---|"]
    lib = get(runs, "LibraryThroughput", key="items_per_second")
    peers = [("ltEventQueue on the select loop", "LibraryThroughput", "LibraryLatency"),
             ("Boost.Asio io_context::post", "AsioThroughput", "AsioLatency"),
             ("libuv uv_async_send + locked queue", "LibuvThroughput", "LibuvLatency"),
             ("libuv, each message allocated and freed", "LibuvHeapThroughput", None),
             ("bare pipe + select, streamed (no queue)", "PipeSelectStream", None),
             ("bare pipe + select ping-pong (floor)", "PipeSelectPingPong", "PipeSelectPingPong")]
    for label, tp, lat in peers:
        rate = get(runs, tp, key="items_per_second")
        ratio = f"{lib / rate:.2f}x" if rate == rate and lib == lib else "n/a"
        p50 = get(runs, lat, key="p50_us") if lat else float("nan")
        p99 = get(runs, lat, key="p99_us") if lat else float("nan")
        rows.append(f"| {label} | {fmt_rate(rate)} | {ratio} | "
                    f"{fmt_ns(p50 * 1e3)} | {fmt_ns(p99 * 1e3)} |")
    return rows


def series_table(runs, title, args, columns, value=ns):
    rows = [f"| {title} | " + " | ".join(c for c, _ in columns) + " |",
            "|---" * (len(columns) + 1) + "|"]
    for a in args:
        cells = [fmt_ns(value(get(runs, n, a))) if isinstance(get(runs, n, a), dict) else "n/a"
                 for _, n in columns]
        rows.append(f"| {a} | " + " | ".join(cells) + " |")
    return rows


def uri_table(runs):
    rows = ["| work on 14 channel URIs | URIs/s | per URI |", "|---|---|---|"]
    for label, name in (("LtUri parse + getUri", "UriLibraryParseCompose"),
                        ("LtUri parse", "UriLibraryParse"),
                        ("uriparser parse", "UriparserParse"),
                        ("uriparser parse + query split", "UriparserParseQuery"),
                        ("uriparser parse + query split + recompose", "UriparserParseRecompose"),
                        ("floor: LtUri's strings, map and key list alone", "UriDataModelFloor")):
        rate = get(runs, name, key="items_per_second")
        rows.append(f"| {label} | {fmt_rate(rate)} | {fmt_ns(1e9 / rate if rate == rate else rate)} |")
    return rows


def crypto_table(runs):
    rows = ["| benchmark | input | throughput |", "|---|---|---|"]
    for name in sorted(n for n in runs if re.match(r"(Md5|Base64|EncryptFile|DecryptFile)", n)):
        for arg, b in sorted(runs[name].items(), key=lambda kv: kv[0] or 0):
            rate = b.get("bytes_per_second")
            what = f"{fmt_rate(rate)}B/s" if rate else fmt_ns(ns(b)) + " per run"
            rows.append(f"| {name} | {arg if arg is not None else '64 MiB file'} | {what} |")
    return rows


def verdict(ok):
    return "met" if ok else "missed"


def goals(runs):
    lib = get(runs, "LibraryThroughput", key="items_per_second")
    asio = get(runs, "AsioThroughput", key="items_per_second")
    uv = get(runs, "LibuvThroughput", key="items_per_second")
    p50 = get(runs, "LibraryLatency", key="p50_us")
    floor = get(runs, "PipeSelectPingPong", key="p50_us")
    d10 = per_item_ns(get(runs, "QueueDepth", 10)) if runs.get("QueueDepth") else float("nan")
    d4000 = per_item_ns(get(runs, "QueueDepth", 4000)) if runs.get("QueueDepth") else float("nan")
    t1 = ns(get(runs, "LibraryTimerFires", 1)) if runs.get("LibraryTimerFires") else float("nan")
    sparse = ns(get(runs, "LibraryTimerFiresSparse", 8000)) if runs.get("LibraryTimerFiresSparse") else float("nan")
    uri = get(runs, "UriLibraryParseCompose", key="items_per_second")
    upar = get(runs, "UriparserParse", key="items_per_second")
    return [
        "| goal | figure | verdict |", "|---|---|---|",
        f"| road throughput >= 1.0x Boost.Asio | {lib / asio:.2f}x | {verdict(lib >= asio)} |",
        f"| road throughput within 1.5x of libuv | {uv / lib:.2f}x slower | {verdict(uv <= 1.5 * lib)} |",
        f"| latency p50 within 1.2x of the pipe ping-pong | {p50 / floor:.2f}x | {verdict(p50 <= 1.2 * floor)} |",
        f"| cost per event independent of queued events (4000 vs 10) | {d4000 / d10:.2f}x | "
        f"{verdict(d4000 <= 1.5 * d10)} |",
        f"| timer pass not growing with empty slots (8000-slot table vs 1 timer) | {sparse / t1:.2f}x | "
        f"{verdict(sparse <= 1.5 * t1)} |",
        f"| URI parse + compose >= 1.0x uriparser parse | {uri / upar:.2f}x | {verdict(uri >= upar)} |",
    ]


def plot(runs, path):
    fig, axes = plt.subplots(2, 3, figsize=(16, 9))
    fig.suptitle("libtarvotools-mt against its peers (same machine, same run)")

    ax = axes[0][0]
    names = [("library", "LibraryThroughput"), ("Asio", "AsioThroughput"), ("libuv", "LibuvThroughput"),
             ("libuv heap", "LibuvHeapThroughput"), ("pipe stream", "PipeSelectStream"),
             ("pipe ping-pong", "PipeSelectPingPong")]
    vals = [get(runs, n, key="items_per_second") for _, n in names]
    ax.bar([l for l, _ in names], [v / 1e6 if v == v else 0 for v in vals],
           color=["tab:red"] + ["tab:gray"] * (len(names) - 1))
    ax.set_yscale("log")
    ax.set_ylabel("M events/s (log)")
    ax.set_title("cross-thread road: throughput")
    ax.tick_params(axis="x", rotation=30)

    ax = axes[0][1]
    lat = [("library", "LibraryLatency"), ("Asio", "AsioLatency"), ("libuv", "LibuvLatency"),
           ("pipe ping-pong", "PipeSelectPingPong")]
    x = range(len(lat))
    p50 = [get(runs, n, key="p50_us") for _, n in lat]
    p99 = [get(runs, n, key="p99_us") for _, n in lat]
    ax.bar([i - 0.2 for i in x], [v if v == v else 0 for v in p50], width=0.4, label="p50")
    ax.bar([i + 0.2 for i in x], [v if v == v else 0 for v in p99], width=0.4, label="p99")
    ax.set_xticks(list(x))
    ax.set_xticklabels([l for l, _ in lat])
    ax.set_yscale("log")
    ax.set_ylabel("µs (log)")
    ax.set_title("post-to-handler latency")
    ax.legend()

    def lines(ax, title, series, xlabel, value=ns, unit=1e3, ylabel="µs per pass"):
        for label, name in series:
            pts = sorted((a, value(b)) for a, b in runs.get(name, {}).items() if a is not None)
            if pts:
                ax.plot([p[0] for p in pts], [p[1] / unit for p in pts], marker="o", label=label)
        ax.set_xscale("log")
        ax.set_yscale("log")
        ax.set_xlabel(xlabel)
        ax.set_ylabel(ylabel)
        ax.set_title(title)
        ax.legend(fontsize=8)

    lines(axes[0][2], "one loop pass by armed timers",
          [("library, none due", "LibraryTimersIdle"), ("libuv, none due", "LibuvTimersIdle"),
           ("Asio, none due", "AsioTimersIdle"), ("library, one fires", "LibraryTimerFires"),
           ("library, one fires, table emptied", "LibraryTimerFiresSparse"),
           ("libuv, one fires", "LibuvTimerFires"), ("Asio, one fires", "AsioTimerFires")],
          "armed timers")
    lines(axes[1][0], "one loop pass by watched descriptors",
          [("library", "LibraryDescriptors"), ("libuv", "LibuvDescriptors"), ("Asio", "AsioDescriptors")],
          "watched descriptors (one ready)")
    lines(axes[1][1], "event queue: dispatch cost per event",
          [("by handlers (one matches)", "QueueHandlers"), ("by queued events", "QueueDepth"),
           ("behind put-back events", "QueuePastKept")],
          "handlers / queued events / put-back events", value=per_item_ns, unit=1.0, ylabel="ns per event")

    ax = axes[1][2]
    uris = [("LtUri parse+getUri", "UriLibraryParseCompose"), ("LtUri parse", "UriLibraryParse"),
            ("uriparser parse", "UriparserParse"), ("uriparser +query", "UriparserParseQuery"),
            ("uriparser +query+text", "UriparserParseRecompose"), ("LtUri data floor", "UriDataModelFloor")]
    vals = [get(runs, n, key="items_per_second") for _, n in uris]
    ax.barh([l for l, _ in uris], [v / 1e6 if v == v else 0 for v in vals],
            color=["tab:red", "tab:red", "tab:gray", "tab:gray", "tab:gray", "tab:olive"])
    ax.set_xlabel("M URIs/s")
    ax.set_title("channel URIs")

    fig.tight_layout()
    fig.savefig(path, dpi=90)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    results, docs = sys.argv[1], sys.argv[2]
    runs, contexts = load(results)
    parts = ["", "### Machine", ""] + machine(contexts)
    parts += ["", "### Goals", ""] + goals(runs)
    parts += ["", "### Cross-thread road", ""] + road_table(runs)
    parts += ["", "### Loop scale: one pass", ""]
    parts += series_table(runs, "armed timers, none due",
                          [1, 64, 1024, 8000], [("library", "LibraryTimersIdle"), ("libuv", "LibuvTimersIdle"),
                                                ("Boost.Asio", "AsioTimersIdle")])
    parts += [""] + series_table(runs, "armed timers, one fires", [1, 64, 1024, 8000],
                                 [("library", "LibraryTimerFires"),
                                  ("library, table grown then emptied", "LibraryTimerFiresSparse"),
                                  ("libuv", "LibuvTimerFires"), ("Boost.Asio", "AsioTimerFires")])
    parts += [""] + series_table(runs, "watched descriptors, one ready", [1, 10, 100, 500],
                                 [("library", "LibraryDescriptors"), ("libuv", "LibuvDescriptors"),
                                  ("Boost.Asio", "AsioDescriptors")])
    parts += ["", "### Queue scale: dispatch cost per event", ""]
    parts += series_table(runs, "handlers (one matches)", [1, 10, 100], [("per event", "QueueHandlers")],
                          value=per_item_ns)
    parts += [""] + series_table(runs, "queued events", [10, 100, 1000, 4000], [("per event", "QueueDepth")],
                                 value=per_item_ns)
    parts += [""] + series_table(runs, "put-back events ahead", [10, 100, 1000],
                                 [("per event", "QueuePastKept")], value=per_item_ns)
    parts += ["", "### URIs", ""] + uri_table(runs)
    parts += ["", "### Crypto and encoding", ""] + crypto_table(runs)
    parts += ["", "![figures](performance.png)", ""]

    doc = os.path.join(docs, "performance.md")
    with open(doc) as f:
        text = f.read()
    start, end = text.index(BEGIN) + len(BEGIN), text.index(END)
    with open(doc, "w") as f:
        f.write(text[:start] + "\n".join(parts) + "\n" + text[end:])
    plot(runs, os.path.join(docs, "performance.png"))
    print(f"wrote {doc} and {os.path.join(docs, 'performance.png')}")


if __name__ == "__main__":
    main()
