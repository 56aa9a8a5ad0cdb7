"""Turns the scenario results into the verdicts against the targets, bench/results/latest.json,
the Markdown table latest.md and the throughput chart (gnuplot)."""

import json
import os
import statistics
import subprocess

from .workload import GiB, MiB

MB = 1000 * 1000


def paired_ratio(a_values, b_values):
    """Median over repetitions of a/b, each pair measured back to back."""
    return statistics.median(a / b for a, b in zip(a_values, b_values))


def cpu_ceiling(point, tool):
    """Bytes per second the tool could reach at this point if CPU were all that limited it: with
    client and receiver on a core each, the slower side sets the pace."""
    side = max(point[tool]["cpu_s_per_gib"]["median"],
               point[tool]["receiver_cpu_s_per_gib"]["median"])
    return GiB / side


def verdicts(results):
    """One row per target: what was measured, the target, and whether it was met."""
    rows = []

    def add(name, measured, target, met, shown):
        rows.append({"figure": name, "measured": measured, "target": target, "met": bool(met),
                     "shown": shown})

    t = results.get("throughput")
    if t:
        points = {p["connections"]: p for p in t["points"]}
        floor = t["md5_floor_cpu_s_per_gib"]["median"]
        for n in (8, 16):
            if n not in points:
                continue
            pl = points[n]["pellorin"]["cpu_s_per_gib"]
            cu = points[n]["curl"]["cpu_s_per_gib"]
            vs_curl = paired_ratio(pl["values"], cu["values"])
            add(f"client CPU per GiB at {n} connections / curl's", vs_curl, "<= 1.2",
                vs_curl <= 1.2, f"{vs_curl:.2f} x ({pl['median']:.2f} s vs {cu['median']:.2f} s)")
            add(f"client CPU per GiB at {n} connections / openssl dgst -md5",
                pl["median"] / floor, "< 1.0", pl["median"] < floor,
                f"{pl['median'] / floor:.2f} x ({pl['median']:.2f} s vs {floor:.2f} s)")
        at8 = points.get(8)
        if at8:
            vs_curl = paired_ratio(at8["pellorin"]["bytes_per_s"]["values"],
                                   at8["curl"]["bytes_per_s"]["values"])
            ceiling = cpu_ceiling(at8, "pellorin")
            add("throughput at 8 connections / curl", vs_curl, ">= 1.0", vs_curl >= 1.0,
                f"{vs_curl:.2f} x (by CPU cost at most "
                f"{ceiling / cpu_ceiling(at8, 'curl'):.2f} x)")
        at1 = points.get(1)
        if at1 and "pellorin-alone" in at1:
            for name, key in (("throughput", "bytes_per_s"), ("CPU per GiB", "cpu_s_per_gib")):
                ratio = paired_ratio(at1["pellorin"][key]["values"],
                                     at1["pellorin-alone"][key]["values"])
                add(f"1 connection: {name} / parts hashed alone", ratio, "0.95 .. 1.05",
                    abs(ratio - 1) <= 0.05, f"{ratio:.3f}")
    m = results.get("memory")
    if m:
        rss = m["max_rss_bytes"]
        add(f"peak RSS, {m['file_bytes'] / GiB:g} GiB, {m['connections']} connections", rss,
            "<= 64 MiB", rss <= 64 * MiB, f"{rss / MiB:.1f} MiB")
    for r in results.get("rate_limit", []):
        p, rest = r["pellorin"], r["pellorin"]["without_unthrottled_part"]
        cap = f"{r['cap_bytes_per_s'] / MB:g} MB/s"
        add(f"rate limit {cap}: average / cap", p["average_of_cap"], "0.98 .. 1.02",
            abs(p["average_of_cap"] - 1) <= 0.02,
            f"{p['average_of_cap']:.3f} ({rest['average_of_cap']:.3f} without the first part)")
        add(f"rate limit {cap}: worst one-second window / cap", p["max_window_of_cap"],
            "<= 1.10", p["max_window_of_cap"] <= 1.10,
            f"{p['max_window_of_cap']:.3f} ({rest['max_window_of_cap']:.3f} without the first "
            "part)")
    s = results.get("small_parts")
    if s:
        rate = s["pellorin"]["parts_per_s"]["median"]
        vs_curl = paired_ratio(s["pellorin"]["parts_per_s"]["values"],
                               s["curl"]["parts_per_s"]["values"])
        add(f"small parts ({s['parts']} x {s['part_bytes'] // 1024} KiB): parts/s", rate,
            ">= 1000", rate >= 1000, f"{rate:.0f}")
        add("small parts: pellorin / curl", vs_curl, ">= 1.0", vs_curl >= 1.0,
            f"{vs_curl:.2f} x")
    c = results.get("cancellation")
    if c:
        worst = c["pellorin"]["latency_s"]["max"]
        add("cancellation: SIGINT to exit (worst)", worst, "<= 0.5 s", worst <= 0.5,
            f"{worst * 1000:.0f} ms")
    return rows


def write_json(results, path):
    with open(path, "w") as f:
        json.dump(results, f, indent=2)
        f.write("\n")


def _mib(value):
    return f"{value / MiB:.0f}"


def _spread(s, scale=MiB, digits=0):
    return f"{s['median'] / scale:.{digits}f} ({s['min'] / scale:.{digits}f}-{s['max'] / scale:.{digits}f})"


def markdown(results):
    lines = []
    machine = results["machine"]
    md5 = results["md5_limit"]
    lines += [
        f"Measured {results['generated']} at commit `{results['commit']}`"
        f"{'' if results['host_binary'].startswith('built') else ' with the host binary ' + results['host_binary']}"
        f"{' (quick pass)' if results['quick'] else ''}: {machine['cpu']}, {machine['cores']} cores, "
        f"load average {machine['load_start']:.1f} at the start and {machine['load_end']:.1f} at "
        f"the end. Single-core MD5 (`openssl speed -evp md5`, 1 MiB blocks): "
        f"{md5['cpu_bytes_per_s']['median'] / MiB:.0f} MiB/s by CPU time, "
        f"{md5['elapsed_bytes_per_s']['median'] / MiB:.0f} MiB/s by wall time under that load.",
        "",
        "| target | measured | wanted | met |",
        "|---|---|---|---|",
    ]
    for row in results["targets"]:
        lines.append(f"| {row['figure']} | {row['shown']} | {row['target']} | "
                     f"{'yes' if row['met'] else '**no**'} |")
    t = results.get("throughput")
    if t:
        lines += [
            "",
            f"Throughput, {t['file_bytes'] / GiB:g} GiB in {t['part_bytes'] // MiB} MiB parts, "
            f"MiB/s as median (min-max) of {t['repetitions']}; ratios are medians of the ratios "
            "of runs made back to back.",
            "",
            "| connections | pellorin MiB/s | curl MiB/s | pellorin / curl | pellorin / MD5 core "
            "| lane occupancy |",
            "|---|---|---|---|---|---|",
        ]
        for p in t["points"]:
            pl, cu = p["pellorin"], p["curl"]
            ratio = paired_ratio(pl["bytes_per_s"]["values"], cu["bytes_per_s"]["values"])
            lines.append(
                f"| {p['connections']} | {_spread(pl['bytes_per_s'])} "
                f"| {_spread(cu['bytes_per_s'])} | {ratio:.2f} "
                f"| {pl['bytes_per_s']['median'] / md5['cpu_bytes_per_s']['median']:.2f} "
                f"| {100 * p['lane_occupancy']['median']:.0f}% |")
        alone = next((p["pellorin-alone"] for p in t["points"] if "pellorin-alone" in p), None)
        if alone:
            lines += ["", "Lane occupancy: the share of the MD5 kernels' lane slots that carried "
                          "data. At 1 connection pellorin also ran with every part hashed by "
                          "itself (`PELLORIN_MD5_LANES=0`, the data path before parts were "
                          f"hashed together): {_spread(alone['bytes_per_s'])} MiB/s, "
                          f"{alone['cpu_s_per_gib']['median']:.2f} CPU s per GiB."]
        lines += [
            "",
            "What each side costs: user+system CPU seconds per GiB of the client and of the "
            "receiver (medians), the throughput that cost allows with a core for each side "
            "(the slower side sets the pace), and the client's peak resident set. The floor for "
            "a client that hashes, `openssl dgst -md5` over the same file, took "
            f"{t['md5_floor_cpu_s_per_gib']['median']:.2f} s per GiB.",
            "",
            "| connections | pellorin CPU s/GiB | its receiver | CPU-bound MiB/s "
            "| curl CPU s/GiB | its receiver | CPU-bound MiB/s | pellorin peak RSS "
            "| curl peak RSS |",
            "|---|---|---|---|---|---|---|---|---|",
        ]
        for p in t["points"]:
            pl, cu = p["pellorin"], p["curl"]
            lines.append(
                f"| {p['connections']} | {pl['cpu_s_per_gib']['median']:.2f} "
                f"| {pl['receiver_cpu_s_per_gib']['median']:.2f} "
                f"| {cpu_ceiling(p, 'pellorin') / MiB:.0f} "
                f"| {cu['cpu_s_per_gib']['median']:.2f} "
                f"| {cu['receiver_cpu_s_per_gib']['median']:.2f} "
                f"| {cpu_ceiling(p, 'curl') / MiB:.0f} "
                f"| {_mib(pl['max_rss_bytes']['max'])} MiB | {_mib(cu['max_rss_bytes']['max'])} MiB |")
    m = results.get("memory")
    if m:
        lines += ["", f"Memory: uploading {m['file_bytes'] / GiB:g} GiB with {m['connections']} "
                      f"connections peaked at {m['max_rss_bytes'] / MiB:.1f} MiB resident "
                      f"({m['bytes_per_s'] / MiB:.0f} MiB/s)."]
    if results.get("rate_limit"):
        lines += [
            "",
            "Rate limit: bytes on the wire counted by a relay in 10 ms slots; windows are every "
            "one-second span of the sending period (10 ms steps). The client sends the first "
            "part of a file to start without the limiter, by design; the second row leaves that "
            "part's request out (the relay follows the requests within each kept-alive "
            "connection). curl gets the cap divided by its connections, per transfer "
            "(`--limit-rate`).",
            "",
            "| cap | tool | connections | average / cap | worst 1 s window / cap "
            "| lowest 1 s window / cap | client CPU s |",
            "|---|---|---|---|---|---|---|",
        ]
        for r in results["rate_limit"]:
            rows = [("pellorin", r["pellorin"]),
                    ("pellorin without its first part", r["pellorin"]["without_unthrottled_part"]),
                    ("curl", r["curl"])]
            for tool, w in rows:
                lines.append(
                    f"| {r['cap_bytes_per_s'] / MB:g} MB/s | {tool} | {r['connections']} "
                    f"| {w['average_of_cap']:.3f} | {w['max_window_of_cap']:.3f} "
                    f"| {w['min_window_of_cap']:.3f} | {w['cpu_s']:.2f} |")
    s = results.get("small_parts")
    if s:
        lines += [
            "",
            f"Small parts: {s['parts']} parts of {s['part_bytes'] // 1024} KiB, "
            f"{s['connections']} connections; parts/s median (min-max) of {s['repetitions']}: "
            f"pellorin {_spread(s['pellorin']['parts_per_s'], 1)}, "
            f"curl {_spread(s['curl']['parts_per_s'], 1)}. CPU per part, client and receiver: "
            f"pellorin {s['pellorin']['cpu_ms_per_part']['median']:.2f} ms and "
            f"{s['pellorin']['receiver_cpu_ms_per_part']['median']:.2f} ms, curl "
            f"{s['curl']['cpu_ms_per_part']['median']:.2f} ms and "
            f"{s['curl']['receiver_cpu_ms_per_part']['median']:.2f} ms. Both reuse their "
            "connections; pellorin also hashes every part and gives each its own session.",
        ]
    c = results.get("cancellation")
    if c:
        lines += [
            "",
            f"Cancellation: SIGINT {c['signal_after_s']:g} s into a {c['file_bytes'] / GiB:g} GiB "
            f"upload with {c['connections']} connections, until the process was gone: pellorin "
            f"median {c['pellorin']['latency_s']['median'] * 1000:.0f} ms, worst "
            f"{c['pellorin']['latency_s']['max'] * 1000:.0f} ms; curl median "
            f"{c['curl']['latency_s']['median'] * 1000:.0f} ms, worst "
            f"{c['curl']['latency_s']['max'] * 1000:.0f} ms.",
        ]
    return "\n".join(lines) + "\n"


def chart(results, png, scratch):
    """Throughput against connections for both tools, with the single-core MD5 speed as a line."""
    t = results.get("throughput")
    if not t:
        return False
    data = os.path.join(scratch, "throughput.dat")
    with open(data, "w") as f:
        for p in t["points"]:
            pl, cu = p["pellorin"]["bytes_per_s"], p["curl"]["bytes_per_s"]
            f.write(" ".join(f"{v:.2f}" for v in (
                p["connections"], pl["median"] / MiB, pl["min"] / MiB, pl["max"] / MiB,
                cu["median"] / MiB, cu["min"] / MiB, cu["max"] / MiB)) + "\n")
    md5 = results["md5_limit"]["cpu_bytes_per_s"]["median"] / MiB
    top = max(md5, max(p[tool]["bytes_per_s"]["max"] / MiB for p in t["points"]
                       for tool in ("pellorin", "curl"))) * 1.15
    script = f"""
set terminal pngcairo size 1000,560 font ",11"
set output "{png}"
set title "Upload throughput on loopback, {t['file_bytes'] / GiB:g} GiB in {t['part_bytes'] // MiB} MiB parts (median, min-max)"
set xlabel "connections"
set ylabel "MiB/s"
set logscale x 2
set xrange [0.8:20]
set xtics ({", ".join(str(p["connections"]) for p in t["points"])})
set yrange [0:{top:.0f}]
set grid
set key outside right top vertical
plot "{data}" using 1:2:3:4 with yerrorlines lw 2 pt 7 title "pellorin", \\
     "{data}" using 1:5:6:7 with yerrorlines lw 2 pt 5 title "curl --parallel", \\
     {md5:.1f} with lines dt 2 lw 2 title "single-core MD5 ({md5:.0f} MiB/s)"
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    return True


README_START = "<!-- bench/run writes from here -->"
README_END = "<!-- bench/run writes up to here -->"


def update_readme(readme, table):
    """Puts the latest table between the README's markers, leaving the rest as it is. Returns
    False when the README has no markers."""
    with open(readme) as f:
        text = f.read()
    start, end = text.find(README_START), text.find(README_END)
    if start < 0 or end < start:
        return False
    text = text[:start + len(README_START)] + "\n" + table + text[end:]
    with open(readme, "w") as f:
        f.write(text)
    return True
