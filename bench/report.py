"""Turns what bench.py --json and ab --json wrote into the tables (standard output) and the plot (docs/performance.svg)
of the page.

    report.py FILE.json"""

import json
import os
import subprocess
import sys

LABELS = {"orders_s": "orders/s", "cpu_us": "CPU µs an order", "cpu_gib": "CPU s a GiB", "core": "share of its core",
          "answer_us": "answer, p50 µs", "stored_us": "stored file, p50 µs", "cpu_s": "CPU s",
          "kib_task": "anonymous KiB a task", "kib_after": "anonymous KiB afterwards",
          "peak_kib": "anonymous KiB at the peak", "after_kib": "anonymous KiB afterwards",
          "pss_kib": "proportional KiB", "hwm_kib": "peak resident KiB", "calls": "system calls an order"}


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def tables(results):
    for work, rows in results.items():
        keys = list(next(iter(rows.values())))
        print(f"\n### {work}\n")
        print("| contender | " + " | ".join(LABELS[k] for k in keys) + " |")
        print("|---" * (len(keys) + 1) + "|")
        for name, row in rows.items():
            print(f"| {name} | " + " | ".join(number(row[k]) for k in keys) + " |")


def plot(results, path):
    """CPU of each contender relative to the bare loop that writes."""
    bare = ("bare", "bare loop, written")
    works = [w for w, rows in results.items() if any("cpu_us" in rows.get(name, {}) for name in bare)]
    if not works:
        return
    names = list(results[works[0]])
    lines = []
    for name in names:
        cells = [f'"{name}"']
        for work in works:
            base = next(results[work][b]["cpu_us"] for b in bare if b in results[work])
            row = results[work].get(name)
            cells.append(f"{row['cpu_us'] / base:.3f}" if row else "NaN")
        lines.append(" ".join(cells))
    # In place of a missing bar: works are the series, contenders the clusters, one bar's width lies between clusters.
    missing = [f'set label "not run" at {j + (i - (len(works) - 1) / 2) / (len(works) + 1):.3f},0.04 '
               f'rotate by 90 font ",9"'
               for i, work in enumerate(works) for j, name in enumerate(names) if name not in results[work]]
    labels = "\n".join(missing)
    data = "\n".join([" ".join(['"contender"'] + [f'"{w}"' for w in works])] + lines)
    script = f"""$data << END
{data}
END
set terminal svg noenhanced size 900,420 font "sans-serif,12" background "white"
{labels}
set output "{path}"
set title "CPU an order, relative to the bare loop in written mode (less is better)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set xtics rotate by -20
set ytics 0.5
set grid ytics
set yrange [0:*]
set key top left
plot for [i=2:{len(works) + 1}] $data using i:xtic(1) title columnheader(i)
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    with open(sys.argv[1], encoding="ascii") as f:
        measured = json.load(f)
    tables(measured["results"])
    plot(measured["results"], os.path.join(os.path.dirname(os.path.abspath(__file__)), "../docs/performance.svg"))


if __name__ == "__main__":
    main()
