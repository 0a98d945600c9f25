#!/usr/bin/env python3
"""Compares the page of --report html with the report for programs: html_report.py BIN-DIRECTORY"""
import json
import os
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

BIN = os.path.abspath(sys.argv[1])
NAME = "<day> & 'night'\" \xff.pcap".encode("latin-1")


def run(*words):
    return subprocess.run([BIN + "/" + words[0], *words[1:]], check=True, capture_output=True).stdout


def report(form):
    return run("kes_engine", "--exec", "commands", "--replay", NAME, "--rx-port", "7", "--speed", "8",
               "--local", "10.0.0.1", "--log", "log", "--report", form)


def number(text):
    return int(re.sub(r"\s", "", text))


def table(page, name):
    """The cells of a table below its headings, which stand in front of them."""
    rows = page.find(f".//table[@id='{name}']").iter("tr")
    return [["".join(cell.itertext()) for cell in row] for row in rows]


def check(what, shown, counted):
    assert shown == counted, f"{what}: the page has {shown}, and the other report {counted}"


with tempfile.TemporaryDirectory() as directory:
    os.chdir(directory)
    run("capwap_gen", "--out", NAME, "--commands", "right", "--aps", "40", "--instances", "4",
        "--seed", "7", "--rate", "2000", "--mix", "all,damaged=0")
    lines = [line for line in open("right") if not line.startswith(("tunnel default", "source add 1 2"))]
    open("commands", "w").writelines(lines[:len(lines) // 2])  # the others are not served
    counted = json.loads(report("json"))
    text = report("html").decode()
page = xml.etree.ElementTree.fromstring(text.removeprefix("<!DOCTYPE html>"))
check("file name", page.find("head/title").text, NAME.decode("utf-8", "replace"))
for outside in ("//", "src=", "href", "<script", "url(", "@import"):
    assert outside not in text, f"the page refers to something outside: {outside}"

fates = {row[0]: number(row[1]) for row in table(page, "fates")[1:]}
check("fates", fates, {name: counted[name] for name in fates})
assert len(fates) == 4 and fates["undelivered"] > 0
check("instances", [[int(cell) for cell in map(number, row)] for row in table(page, "instances")[1:]],
      [[of["instance"], of["cwp"], of["wapi"]] for of in counted["instances"]])
messages = {}
for of in counted["instances"]:
    for name, packets in of["messages"].items():
        messages[name] = messages.get(name, 0) + packets
check("messages", {row[0]: number(row[1]) for row in table(page, "messages")[1:]}, messages)
counters = table(page, "counters")
for column, of in enumerate(counted["classes"], 1):
    check(of["class"], [number(row[column]) for row in counters[1:]],
          [value for value in of.values() if isinstance(value, int)])
by_time = table(page, "time")
for column, name in enumerate(by_time[0][1:6], 1):
    check(name + " over time", sum(number(row[column]) for row in by_time[1:]), counted[name])

# Everyone who is not served is told of, by the table or by the words behind it.
unserved = table(page, "unserved")
left_out = re.search(r"left out here, with ([\d\u202f]+) packet", text)
assert left_out and len(unserved) == 26
check("packets that are not served",
      sum(number(row[3]) for row in unserved[1:]) + number(left_out[1]),
      sum(of["sendFailed"] + of["processingFailed"] for of in counted["classes"]))
assert any("no source has the destination address" in row[5] for row in unserved)
assert any("no entry has this key" in row[5] for row in unserved)
