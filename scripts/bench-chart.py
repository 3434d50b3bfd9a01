#!/usr/bin/env python3
"""Chart of kestrixd under load: requests per second and p99 latency against
client threads, one line per request kind, from kxbench's --json output.

Either runs kxbench itself for every kind and thread count (--kxbench), keeping
its JSON lines beside the picture, or reads JSON lines kept from an earlier run
(--from). Needs matplotlib (Debian: python3-matplotlib).

  scripts/bench-chart.py --kxbench build/bench/kxbench -o docs/images/kxbench.svg
  scripts/bench-chart.py --from docs/images/kxbench.jsonl -o docs/images/kxbench.svg
"""
import argparse
import json
import os
import subprocess
import sys


def run_kxbench(kxbench, kinds, threads, duration, extra, repeat):
    """kxbench --json lines, repeat of them per kind and thread count, as dicts."""
    rows = []
    for n in threads * repeat:
        cmd = [kxbench, "--kind", ",".join(kinds), "--threads", str(n),
               "--duration", str(duration), "--json"] + extra
        print("running:", " ".join(cmd), file=sys.stderr)
        out = subprocess.run(cmd, check=True, stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True).stdout
        rows += [json.loads(line) for line in out.splitlines() if line.startswith("{")]
    return rows


def best(rows):
    """Per kind and thread count the row of most requests per second: other
    load on the machine only slows the daemon down."""
    kept = {}
    for r in rows:
        key = (r["kind"], r["threads"])
        if key not in kept or r["daemon"]["req_per_s"] > kept[key]["daemon"]["req_per_s"]:
            kept[key] = r
    return list(kept.values())


def plot(rows, output, title):
    import matplotlib
    matplotlib.use("Agg")  # no display needed
    import matplotlib.pyplot as plt

    kinds = sorted({r["kind"] for r in rows}, key=[r["kind"] for r in rows].index)
    fig, (rate, p99) = plt.subplots(1, 2, figsize=(11, 4.2))
    for kind in kinds:
        points = sorted((r["threads"], r["daemon"]) for r in rows if r["kind"] == kind)
        xs = [t for t, _ in points]
        rate.plot(xs, [d["req_per_s"] for _, d in points], marker="o", label=kind)
        p99.plot(xs, [d["p99_us"] for _, d in points], marker="o", label=kind)
    threads = sorted({r["threads"] for r in rows})
    for ax, label in ((rate, "requests per second"), (p99, "p99 latency (µs, log scale)")):
        ax.set_xlabel("client threads")
        ax.set_ylabel(label)
        ax.set_xscale("log", base=2)
        ax.set_xticks(threads, [str(t) for t in threads])
        ax.grid(True, alpha=0.3)
    rate.set_ylim(bottom=0)
    # Latency spans orders of magnitude once a machine is busy.
    p99.set_yscale("log")
    p99.yaxis.set_major_formatter(matplotlib.ticker.ScalarFormatter())
    p99.yaxis.set_minor_formatter(matplotlib.ticker.FormatStrFormatter("%.0f"))
    p99.legend(title="request kind")
    fig.suptitle(title)
    fig.tight_layout()
    fig.savefig(output, metadata={"Date": None} if output.endswith(".svg") else None)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    source = p.add_mutually_exclusive_group(required=True)
    source.add_argument("--kxbench", help="the kxbench to run")
    source.add_argument("--from", dest="jsonl", help="kxbench --json lines kept earlier")
    p.add_argument("--kinds", default="header,getvolume,cycle,setsize,string")
    p.add_argument("--threads", default="1,2,4,8")
    p.add_argument("--duration", type=float, default=3)
    p.add_argument("--repeat", type=int, default=1,
                   help="runs per point; the one of most requests per second is drawn")
    p.add_argument("--args", default="", help='kxbench options passed on, e.g. "--window 4"')
    p.add_argument("--title", default="kestrixd under a closed-loop load (kxbench)")
    p.add_argument("-o", "--output", required=True, help="the picture (.svg or .png)")
    a = p.parse_args()

    if a.kxbench:
        rows = run_kxbench(a.kxbench, a.kinds.split(","), [int(t) for t in a.threads.split(",")],
                           a.duration, a.args.split(), a.repeat)
        kept = os.path.splitext(a.output)[0] + ".jsonl"
        with open(kept, "w") as f:
            f.writelines(json.dumps(r) + "\n" for r in rows)
        print("kxbench figures kept in", kept, file=sys.stderr)
    else:
        with open(a.jsonl) as f:
            rows = [json.loads(line) for line in f if line.startswith("{")]
    if not rows:
        sys.exit("no kxbench figures to plot")
    plot(best(rows), a.output, a.title)
    print("wrote", a.output, file=sys.stderr)


if __name__ == "__main__":
    main()
