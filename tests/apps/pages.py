#!/usr/bin/env python3
"""Compares manual pages and completion with --help: pages.py BIN-DIRECTORY SOURCE-DIRECTORY

Every option that a program has stands in its page, the page has no other, and bash completes it.
"""
import re
import shutil
import subprocess
import sys

BIN, SOURCE = sys.argv[1:3]


def completed(program, word):
    script = f"""source {SOURCE}/completion/{program}.bash; COMP_WORDS=({BIN}/{program} {word})
                 COMP_CWORD=1; _{program}; printf '%s\\n' "${{COMPREPLY[@]}}" """
    return set(subprocess.run(["bash", "-c", script], text=True, capture_output=True,
                              check=True).stdout.split())


def main():
    wrong = []
    for program in ("kes_engine", "capwap_gen"):
        text = subprocess.run([f"{BIN}/{program}", "--help"], text=True, check=True,
                              capture_output=True).stdout
        options = set(re.findall(r"^  (?:-h,)?(--[a-z0-9-]+)", text.split("\nExamples:")[0], re.M))
        path = f"{SOURCE}/docs/{program}.1"
        with open(path) as file:
            page = file.read().replace("\\-", "-")
        told = set(re.findall(r"^\.(?:B|BI|BR -h \", \") (?:\")?(--[a-z0-9-]+)", page, re.M))
        told |= set(re.findall(r'^\.BR -h ", " (--help)', page, re.M))
        wrong += [f"{option} does not stand in {path}" for option in sorted(options - told)]
        wrong += [f"{program} has no {option}, of {path}" for option in sorted(told - options)]
        wrong += [f"{option} of {program} is not completed"
                  for option in sorted(options - completed(program, "--"))]
    if shutil.which("mandoc"):
        for program in ("kes_engine", "capwap_gen", "lyrctl"):
            lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning",
                                   f"{SOURCE}/docs/{program}.1"], text=True, capture_output=True)
            wrong += lint.stdout.splitlines()
    print("\n".join(wrong) if wrong else "ok")
    return bool(wrong)


sys.exit(main())
