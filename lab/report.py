"""Turns the lab's results into BENCHMARKS.md.

    python3 lab/report.py RESULTS_DIR OUT_MD

Each scenario leaves one RESULTS_DIR/<scenario>.json behind; this reads them all, draws
every throughput series with gnuplot into RESULTS_DIR/plots/<scenario>-<n>.svg and writes
one markdown file that links the plots relative to its own folder, so the links hold
wherever the repository is checked out or browsed. Only the standard library and gnuplot:
the lab runs on bare test machines and the report has to come out of the same run that
measured.
"""
import glob
import json
import os
import re
import subprocess
import sys

# Line style (colour, dash type) of each event the lab or the daemon can record. Rule
# rewrites are not here: there can be dozens in a run, so they are short ticks along the
# bottom instead of lines across the plot that would hide the throughput.
EVENT_STYLES = {
    "switch": ("#7b2fbe", 2),
    "reset": ("#d62728", 3),
    "reconnect": ("#2ca02c", 4),
    "down": ("#000000", 5),
    "up": ("#555555", "(4,2,4,8)"),
    "change": ("#ff7f0e", "(16,6)"),
}
OTHER_EVENT = ("#8c564b", "(1,6)")
REWRITE_COLOUR = "#1f77b4"


def load(results_dir):
    scenarios = []
    for path in glob.glob(os.path.join(results_dir, "*.json")):
        with open(path) as f:
            data = json.load(f)
        data.setdefault("scenario", os.path.splitext(os.path.basename(path))[0])
        scenarios.append(data)
    # A scenario without an order still shows up, after the ordered ones.
    return sorted(scenarios, key=lambda s: (s.get("order", float("inf")), s["scenario"]))


def cell(value):
    if isinstance(value, bool):  # before the number cases: a bool is an int to Python
        return "yes" if value else "no"
    if isinstance(value, float):
        return "%.3f" % value if abs(value) < 1 else "%.2f" % value
    return "" if value is None else str(value).replace("|", "\\|")


def quote(text):
    return "'%s'" % str(text).replace("'", "''")  # gnuplot's single-quoted string


def number(values, i):
    v = values[i] if i < len(values) else None
    return repr(float(v)) if isinstance(v, (int, float)) and not isinstance(v, bool) else "NaN"


def plot_script(series, svg):
    t = series["t"]
    links = series.get("links") or {}
    names = list(links)
    events = sorted((e for e in series.get("events") or [] if isinstance(e.get("t"), (int, float))),
                    key=lambda e: e["t"])
    rows = [" ".join([repr(float(x))] + [number(links[n], i) for n in names])
            for i, x in enumerate(t)]
    # The x range covers the events too: a reconnect logged after the last sample still
    # belongs on the plot.
    times = list(t) + [e["t"] for e in events]
    lo, hi = min(times), max(times)
    if hi <= lo:
        hi = lo + 1
    lines = [
        "set terminal svg size 960,460 dynamic font 'sans,11'",
        "set output %s" % quote(svg),
        "set encoding utf8",
        "set termoption noenhanced",  # link names have underscores, labels have arrows
        "$data << EOD", *rows, "EOD",
        "set title %s" % quote("Mbit/s per link over time: " + str(series.get("title", ""))),
        "set xlabel 'time (s)'", "set ylabel 'Mbit/s'",
        "set xrange [%r:%r]" % (float(lo), float(hi)), "set yrange [0:*]",
        "set grid", "set key outside right top", "set style textbox opaque noborder",
    ]
    kinds = []
    # A switch, a reset and a reconnect land within a fraction of a second of each other;
    # a label that would sit on a neighbour's goes one step lower down the plot.
    level_ends = []
    for e in events:
        kind = e.get("kind", "")
        if kind == "rewrite":
            lines.append("set arrow from %r, graph 0 to %r, graph 0.04 nohead lc rgb '%s'"
                         % (e["t"], e["t"], REWRITE_COLOUR))
        else:
            colour, dash = EVENT_STYLES.get(kind, OTHER_EVENT)
            lines.append("set arrow from %r, graph 0 to %r, graph 1 nohead lc rgb '%s' dt %s"
                         % (e["t"], e["t"], colour, dash))
            near = e["t"] - 0.03 * (hi - lo)
            level = next((i for i, end in enumerate(level_ends) if end < near), len(level_ends))
            level_ends[level:level + 1] = [e["t"]]
            lines.append("set label %s at %r, graph %.2f rotate by 90 right offset -0.6,0 "
                         "front boxed font ',9' tc rgb '%s'"
                         % (quote(e.get("label") or kind), e["t"], 0.98 - 0.24 * (level % 4), colour))
        if kind not in kinds:
            kinds.append(kind)
    plots = ["$data using 1:%d with lines lw 2 title %s" % (i + 2, quote(n))
             for i, n in enumerate(names)]
    # Arrows have no legend entries of their own; an empty curve in the same style gives
    # each kind present one.
    for kind in kinds:
        if kind == "rewrite":
            plots.append("NaN with lines lc rgb '%s' title 'rule rewrite'" % REWRITE_COLOUR)
        else:
            colour, dash = EVENT_STYLES.get(kind, OTHER_EVENT)
            plots.append("NaN with lines lc rgb '%s' dt %s title %s" % (colour, dash, quote(kind)))
    lines.append("plot " + ", \\\n     ".join(plots))
    return "\n".join(lines) + "\n"


def draw(scenario, plots_dir):
    """Draws the scenario's series and returns (title, svg path) for each one drawn."""
    name = scenario["scenario"]
    # Plots left by an earlier run with more series would otherwise linger next to the new ones.
    for old in glob.glob(os.path.join(plots_dir, glob.escape(name) + "-*.svg")):
        if re.fullmatch(re.escape(name) + r"-\d+\.svg", os.path.basename(old)):
            os.remove(old)
    drawn = []
    for n, series in enumerate(scenario.get("series") or [], 1):
        links = series.get("links") or {}
        if not series.get("t") or not any(number(v, i) != "NaN" for v in links.values()
                                          for i in range(len(series["t"]))):
            continue  # gnuplot refuses a plot with no point at all
        os.makedirs(plots_dir, exist_ok=True)
        svg = os.path.join(plots_dir, "%s-%d.svg" % (name, n))
        run = subprocess.run(["gnuplot"], input=plot_script(series, svg), text=True,
                             capture_output=True)
        if run.returncode != 0:
            raise RuntimeError("gnuplot failed on %s: %s" % (svg, run.stderr.strip()))
        drawn.append((series.get("title") or "%s %d" % (name, n), svg))
    return drawn


def table(t):
    columns = t.get("columns") or []
    rows = t.get("rows") or []
    width = max([len(columns)] + [len(r) for r in rows])
    if not width:
        return []
    columns = [cell(c) for c in columns] + [""] * (width - len(columns))
    out = ["*%s*" % t["caption"], ""] if t.get("caption") else []
    out += ["| " + " | ".join(columns) + " |", "|" + "---|" * width]
    out += ["| " + " | ".join([cell(v) for v in r] + [""] * (width - len(r))) + " |" for r in rows]
    return out + [""]


def write_report(results_dir, out_md):
    scenarios = load(results_dir)
    md_dir = os.path.dirname(os.path.abspath(out_md))
    first = scenarios[0] if scenarios else {}
    about = "This file is generated by `lab/run`; do not edit it by hand."
    if first.get("machine"):
        about += " Measured on %s" % first["machine"]
        about += ", %s." % first["date"] if first.get("date") else "."
    out = ["# Vekt: lab figures", "", about, "",
           "To reproduce everything: `sudo lab/run`; a single scenario: `sudo lab/run SCENARIO`.", ""]
    for s in scenarios:
        out += ["## %s" % (s.get("title") or s["scenario"]), ""]
        if s.get("command"):
            out += ["`%s`" % s["command"], ""]
        checks = s.get("checks") or []
        passed = s.get("passed")
        if passed is None and checks:
            passed = all(c.get("ok") for c in checks)
        if passed is not None:
            out += ["**%s**" % ("passed" if passed else "failed"), ""]
        if s.get("summary"):
            out += ["- %s" % line for line in s["summary"]] + [""]
        for t in s.get("tables") or []:
            out += table(t)
        if checks:
            mark = {True: "✓", False: "✗"}
            out += ["- %s %s%s" % (mark.get(c.get("ok"), "?"), c.get("what", ""),
                                   " (%s)" % cell(c["value"]) if "value" in c else "")
                    for c in checks] + [""]
        for title, svg in draw(s, os.path.join(results_dir, "plots")):
            link = os.path.relpath(os.path.abspath(svg), md_dir).replace(os.sep, "/")
            out += ["![%s](%s)" % (re.sub(r"([\[\]])", r"\\\1", title), link), ""]
    with open(out_md, "w") as f:
        f.write("\n".join(out).rstrip("\n") + "\n")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: %s RESULTS_DIR OUT_MD" % sys.argv[0])
    write_report(sys.argv[1], sys.argv[2])
