#!/usr/bin/env python3
"""Prints results of the benchmarks as a Markdown table, several results side by side.

RESULT.json is what a benchmark program writes with --benchmark_out=RESULT.json and
--benchmark_repetitions. A cell is the median of the repetitions with their lowest and highest.
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
        if run["run_type"] == "iteration" and counter in run:
            name = re.sub(r"/(manual_time|threads:\d+|iterations:\d+)", "", run["run_name"])
            figures[name, run["threads"]].append(run[counter])
    return figures


def cell(values):
    if not values:
        return ""
    return f"{statistics.median(values):.1f} ({min(values):.1f}–{max(values):.1f})"


def ratio(above, below):
    """Of medians: repetitions are run in random order."""
    if not above or not below:
        return ""
    return f"{statistics.median(above) / statistics.median(below):.2f}"


def print_table(titles, rows):
    print("|", " | ".join(titles), "|")
    print("|---|" + "---:|" * (len(titles) - 1))
    for row in rows:
        print("|", " | ".join(row), "|")


def thread_title(threads):
    return f"{threads} thread{'s' * (threads > 1)}"


def print_figures(options, results, threads, names):
    """A row for each benchmark; of one result, two threads' figures are set against one's too."""
    columns = [(path.stem, result, thread) for thread in threads
               for path, result in zip(options.results, results)]
    several = len(results) > 1
    titles = [options.unit] + [(f"{stem}, " if several else "") + thread_title(thread)
                               for stem, _, thread in columns]
    against = [] if several else threads[1:]
    titles += [f"{thread_title(thread)} / {threads[0]}" for thread in against]
    print_table(titles, ([f"`{name}`"] +
                         [cell(result.get((name, thread))) for _, result, thread in columns] +
                         [ratio(results[0].get((name, thread)), results[0].get((name, threads[0])))
                          for thread in against]
                         for name in names))


def print_ratios(options, results, threads):
    titles = ["ratio"] + [(f"{path.stem}, " if len(results) > 1 else "") + thread_title(thread)
                          for thread in threads for path in options.results]
    print_table(titles, ([f"`{above}` / `{below}`"] +
                         [ratio(result.get((above, thread)), result.get((below, thread)))
                          for thread in threads for result in results]
                         for above, below in options.ratio))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0],
                                     epilog=" ".join(__doc__.splitlines()[2:]))
    parser.add_argument("--only", metavar="REGEX", default="",
                        help="benchmarks whose names begin like this")
    parser.add_argument("--counter", default="typical_ns",
                        help="what to print [%(default)s: of the median burst]; ns/packet: of all")
    parser.add_argument("--unit", default="ns/packet", help="what it is called [%(default)s]")
    parser.add_argument("--ratio", nargs=2, action="append", metavar=("ABOVE", "BELOW"),
                        help="print ratios of two benchmarks instead (repeatable)")
    parser.add_argument("results", nargs="+", type=pathlib.Path, metavar="RESULT.json")
    options = parser.parse_args()
    results = [read(path, options.counter) for path in options.results]
    threads = sorted({thread for result in results for _, thread in result})
    if options.ratio:
        print_ratios(options, results, threads)
        return
    names = list(dict.fromkeys(name for result in results for name, _ in result
                               if re.match(options.only, name)))
    threads = [thread for thread in threads
               if any((name, thread) in result for result in results for name in names)]
    print_figures(options, results, threads, names)


if __name__ == "__main__":
    main()
