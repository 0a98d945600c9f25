#!/usr/bin/env python3
"""Prints results of lyr_bench as a Markdown table, several of them side by side.

usage: table.py [--mean] RESULT.json...

RESULT.json is what lyr_bench writes with --benchmark_out=RESULT.json and
--benchmark_repetitions. A cell is the median of the repetitions with their lowest and highest, in
nanoseconds a packet: of the median burst, or with --mean of all bursts.
"""
import argparse
import collections
import json
import pathlib
import re
import statistics


def read(path, counter):
    """The repetitions' figures, by benchmark and number of threads."""
    figures = collections.defaultdict(list)
    runs = json.loads(path.read_text())["benchmarks"]
    runs.sort(key=lambda run: (run["family_index"], run["per_family_instance_index"]))
    for run in runs:
        if run["run_type"] == "iteration":
            name = re.sub(r"/(manual_time|threads:\d+)", "", run["run_name"])
            figures[name, run["threads"]].append(run[counter])
    return figures


def cell(values):
    if not values:
        return ""
    return f"{statistics.median(values):.1f} ({min(values):.1f}–{max(values):.1f})"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--mean", action="store_true", help="the mean of all bursts")
    parser.add_argument("results", nargs="+", type=pathlib.Path)
    options = parser.parse_args()
    counter = "ns/packet" if options.mean else "typical_ns"
    results = [read(path, counter) for path in options.results]
    threads = sorted({thread for result in results for _, thread in result})
    names = list(dict.fromkeys(name for result in results for name, _ in result))
    columns = [(path.stem, result, thread) for thread in threads
               for path, result in zip(options.results, results)]
    several = len(results) > 1
    titles = [(f"{stem}, " if several else "") + f"{thread} thread{'s' * (thread > 1)}"
              for stem, _, thread in columns]
    print("| ns/packet |", " | ".join(titles), "|")
    print("|---|" + "---:|" * len(titles))
    for name in names:
        cells = [cell(result.get((name, thread))) for _, result, thread in columns]
        print(f"| `{name}` |", " | ".join(cells), "|")


if __name__ == "__main__":
    main()
