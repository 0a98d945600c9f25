#!/usr/bin/env python3
"""Compares docs/vocabulary.md with what the programs print: vocabulary.py BIN-DIRECTORY PAGE

Every key, metric and heading that is printed has to stand in the page, and every key and metric of
the page has to be printed, unless a * behind it says that it comes only at times.
"""
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

BIN, PAGE = (os.path.abspath(path) for path in sys.argv[1:3])
NAMED_BY_DATA = {"messages", "labels", "converted"}  # objects whose keys are names of other things

# What sets the stage, and then whatever has anything to tell.
PREPARATION = ["msgtype select discovery-request", "ping set 10.64.0.5", "trace set --level 1",
               "tunnel add 10.64.0.99 50123 10.0.0.1 5246 --node 2"]
QUESTIONS = ["tunnel list", "session list", "session count", "node show", "save", "save saved",
             "diff site.commands", "recon diff 2 site.commands", "tunnel list --port 5246",
             "tunnel count --port 5246", "wapi show", "source show", "trace show", "stats show",
             "msgtype show", "ping show", "probe show", "channels show",
             "recon run 2 site.commands", "verify show", "inspect",
             "explain --capture day.pcap --frame 2 --rx-port 7", "top --once", "metrics", "wapi 0 4"]
OBJECTS = ["g_lyrKesStaSvcInfo", "g_lyrKesMsgDropStat", "g_LyrHostCwpPingStat",
           "g_LyrHostPktMsgTypeStat", "g_LyrHostCwpTrace"]
TABLES = ["diff saved", "recon diff 2 few.commands", "tunnel list --port 5246", "session list",
          "node show", "source show", "stats show", "msgtype show", "ping show", "probe show",
          "channels show", "verify show"]


def page_names():
    """The page's keys, metrics and words, and the keys and metrics that come only at times."""
    keys, metrics, words, rare = set(), set(), set(), set()
    for line in open(PAGE):
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line)[1:-1]]
        if len(cells) != 4 or not cells[0].startswith("`"):
            continue
        for cell, names in ((cells[0], keys), (cells[2], metrics)):
            for name, star in re.findall(r"`(\w+)`(\*?)", cell):
                names.add(name)
                if star:
                    rare.add(name)
        words.update(word.strip() for word in cells[1].split(","))
    return keys, metrics, words, rare


def keys_of(value, keys, where):
    """Adds the keys of an object, and of those in it, with where they came from."""
    if isinstance(value, list):
        for element in value:
            keys_of(element, keys, where)
    elif isinstance(value, dict):
        for key, member in value.items():
            keys.setdefault(key, where)
            if key not in NAMED_BY_DATA:
                keys_of(member, keys, where)


def program(name, *arguments, may_differ=False):
    done = subprocess.run([f"{BIN}/{name}", *arguments], text=True, capture_output=True)
    if done.returncode > (1 if may_differ else 0):
        raise RuntimeError(f"{name} {' '.join(arguments)}: {done.stderr}")
    return done.stdout


def lyrctl(words, *options):
    return program("lyrctl", "--control", "socket", *options, *words.split(),
                   may_differ="diff" in words)


def state():
    with socket.socket(socket.AF_UNIX) as engine:
        engine.connect("socket")
        engine.sendall(struct.pack("=HHIII", 1, 0x100, 0, 0, 0))
        length = struct.unpack("=HHIII", engine.recv(16, socket.MSG_WAITALL))[2]
        return json.loads(engine.recv(length, socket.MSG_WAITALL))


def printed_names():
    """Keys, metrics and headings, each with who printed it first."""
    keys, metrics, headings = {}, {}, {}
    program("capwap_gen", "--out", "day.pcap", "--commands", "site.commands", "--aps", "12",
            "--instances", "4", "--seed", "7", "--mix", "all,damaged=0,ping=10,probe=5")
    engine = subprocess.Popen(
        [f"{BIN}/kes_engine", "--exec", "site.commands", "--replay", "day.pcap", "--loop", "0",
         "--rate", "2000", "--rx-port", "7", "--control", "socket", "--report", "json", "--log",
         "log", "--local", "10.0.0.1", "--local", "2001:db8::1", "--capability",
         "WCWP_SPEC_SVC_NUM=3"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        for _ in range(200):
            if os.path.exists("socket"):
                break
            time.sleep(0.05)
        for words in PREPARATION:
            lyrctl(words)
        time.sleep(1)
        with open("few.commands", "w") as file:
            file.write("tunnel default --node 2\n")
        for words in QUESTIONS + [f"inspect {name}" for name in OBJECTS]:
            keys_of(json.loads(lyrctl(words, "--json")), keys, f"lyrctl {words}")
        for words in TABLES:
            for heading in re.split("  +", lyrctl(words).splitlines()[0]):
                headings.setdefault(heading, f"lyrctl {words}")
        for family in json.loads(lyrctl("metrics", "--json"))["reply"]["metrics"]:
            metrics[family["name"]] = "lyrctl metrics"
        keys_of(state(), keys, "the engine's state")
    finally:
        engine.send_signal(signal.SIGTERM)
        report = engine.communicate(timeout=60)[0]
    keys_of(json.loads(report), keys, "kes_engine --report json")
    return keys, metrics, headings


def untold():
    """Commands that look as if they had something to tell, and are not asked above."""
    asked = " ".join(QUESTIONS)
    commands = [line.split("\t")[0] for line in program("lyrctl", "--list-commands").splitlines()]
    return [command for command in commands
            if command.split()[-1] in ("show", "list", "count", "diff") and command not in asked]


def main():
    keys, metrics, words, rare = page_names()
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        printed_keys, printed_metrics, headings = printed_names()
        wrong = [f"'{command}' is not among the questions of {sys.argv[0]}" for command in untold()]
        os.chdir("/")
    for what, printed, known in (("key", printed_keys, keys), ("metric", printed_metrics, metrics),
                                 ("heading", headings, words)):
        wrong += [f"{what} '{name}' of {printed[name]} does not stand in {PAGE}"
                  for name in sorted(set(printed) - known)]
    for what, printed, known in (("key", printed_keys, keys), ("metric", printed_metrics, metrics)):
        wrong += [f"{what} '{name}' of {PAGE} is printed by nothing"
                  for name in sorted(known - rare - set(printed))]
    print("\n".join(wrong) if wrong else f"{len(printed_keys)} keys, {len(printed_metrics)} metrics")
    return 1 if wrong else 0


sys.exit(main())
