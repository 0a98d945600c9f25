#!/usr/bin/env python3
"""Runs every command of docs/operating.md, in order, and compares what it prints with the page.

Usage: scripts/operating.py BIN-DIRECTORY [--update]

Commands stand in blocks of code behind "$ ", those that need root behind "# "; a line that ends in
"\\" goes on in the next. They run in one shell, in a new directory of their own. What stands for what:
  ...      lines that are left out
  ^C       the command is interrupted, after five seconds
  ```varies  numbers, and the widths of columns, differ from run to run: only the words are compared
  ```elsewhere  commands for a machine with ports of DPDK's: they are not run
Times, addresses in memory, user names and the directory of sockets are put aside anyway. Without
root, and where packages are missing, blocks that need them are skipped, and named. Where root runs it,
the network and the namespaces that commands make are its own, and gone with it.
Prints the difference, and exits with 1 where there is one. --update writes what was printed into the
page instead.
"""
import difflib
import functools
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

PAGE = os.path.join(os.path.dirname(__file__), "..", "docs", "operating.md")
SHOWN_RUNTIME = "/run/user/0"
PATIENCE = 30  # seconds for a command
OWN_NETWORK = "mkdir -p /run/netns && mount -t tmpfs none /run/netns && ip link set lo up"
TOOLS = ("tshark", "editcap", "tcpreplay", "curl", "promtool")


class Step:
    """A command of the page and the lines that it is to print."""

    def __init__(self, command, first, indent, varies, root, block):
        self.command, self.first, self.indent, self.block = command, first, indent, block
        self.varies, self.root = varies, root
        self.expected = []
        self.end = first  # the line behind its output

    def interrupted(self):
        return "^C" in self.expected


def steps_of(lines):
    steps, inside, varies, skips, indent = [], False, False, False, ""
    number = block = 0
    while number < len(lines):
        line = lines[number]
        number += 1
        fence = re.match(r"( *)```(\w*)", line)
        if fence:
            inside, indent = not inside, fence[1]
            varies, skips = fence[2] == "varies", fence[2] == "elsewhere"
            step = None
            block = number
            continue
        if not inside or skips:
            continue
        text = line[len(indent):]
        prompt = re.match(r"([$#]) ", text)
        if prompt and (prompt[1] == "$" or step is None or step.root):
            command = text[2:]
            while command.endswith("\\"):
                command = command[:-1].rstrip() + " " + lines[number].strip()
                number += 1
            step = Step(command, number, indent, varies, prompt[1] == "#", block)
            steps.append(step)
        elif step is not None:
            step.expected.append(text)
            step.end = number
    return steps


class Shell:
    """A shell whose commands run one after the other, and its output."""

    def __init__(self, directory, programs):
        runtime = os.path.join(directory, "run")
        os.mkdir(runtime, 0o700)
        work = os.path.join(directory, "work")
        os.mkdir(work)
        self.runtime = runtime
        environment = dict(os.environ, XDG_RUNTIME_DIR=runtime, HOME=directory, TZ="UTC",
                           PATH=f"{programs}:/usr/sbin:/sbin:{os.environ['PATH']}", TERM="dumb",
                           LC_ALL="C.UTF-8", LD_LIBRARY_PATH=os.path.join(programs, "..", "lib"),
                           COLUMNS="100", LINES="40", NO_COLOR="1")
        self.log = open(os.path.join(directory, "output"), "w+b", buffering=0)
        shell = ["bash", "--norc"]
        if rooted():
            shell = ["unshare", "-mn", "sh", "-c", f"{OWN_NETWORK} && exec bash --norc"]
        self.shell = subprocess.Popen(shell, stdin=subprocess.PIPE, stdout=self.log,
                                      stderr=self.log, cwd=work, env=environment,
                                      start_new_session=True)
        self.done = os.path.join(directory, "done")
        self.read = 0

    def run(self, step):
        """What the command prints, as lines."""
        command = step.command
        if step.interrupted():
            command = f"timeout --foreground -s INT 5 {command}"
        self.shell.stdin.write(f"{{ {command}\n}} </dev/null\n: > {self.done}\n".encode())
        self.shell.stdin.flush()
        deadline = time.monotonic() + PATIENCE
        while not os.path.exists(self.done):
            if time.monotonic() > deadline or self.shell.poll() is not None:
                raise TimeoutError(f"no end of it after {PATIENCE} s: {step.command}")
            time.sleep(0.01)
        os.remove(self.done)
        lines = self.output()
        # What goes on in the background says when it is ready, or what it is expected to say.
        quiet = time.monotonic()
        while step.command.endswith("&") and time.monotonic() - quiet < 1.5:
            more = self.output()
            if more:
                lines += more
                quiet = time.monotonic()
            time.sleep(0.05)
        return lines

    def output(self):
        size = os.fstat(self.log.fileno()).st_size
        text = os.pread(self.log.fileno(), size - self.read, self.read)
        self.read = size
        text = text.decode(errors="replace").replace(self.runtime, SHOWN_RUNTIME)
        return [line.rstrip() for line in text.splitlines()]

    def close(self):
        os.killpg(self.shell.pid, signal.SIGTERM)
        self.shell.stdin.close()
        self.shell.wait()


def plain(line, varies):
    """A line without what differs from run to run."""
    for pattern, word in ((r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?([+-]\d\d:\d\d|Z)?", "TIME"),
                          (r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d", "TIME"),
                          (r"[A-Z][a-z]{2} +\d+ +\d\d:\d\d", "TIME"),
                          (r"0x[0-9a-f]{9,}", "ADDRESS"),
                          (r"^(s[-rwx]{9}) (\d) \w+ \w+", r"\1 \2 USER USER"),
                          (r"[\d.]+ +\(\d+ packets/s\)", "SECONDS"),
                          (r" +$", "")):
        line = re.sub(pattern, word, line)
    if varies:
        line = re.sub(r"[-\d.,]*\d", "N", line)
        line = re.sub(r"#+$", "", line)
        line = re.sub(r" +", " ", line).strip()
    return line


def matches(expected, printed):
    """Whether the printed lines are the expected ones, with any number of them for each '...'."""
    if not expected:
        return not printed
    if expected[0] == "...":
        return any(matches(expected[1:], printed[skipped:]) for skipped in range(len(printed) + 1))
    return bool(printed) and expected[0] == printed[0] and matches(expected[1:], printed[1:])


def elided(expected, printed):
    """The printed lines, with those left out that were left out before."""
    if "..." not in expected:
        return printed
    head = expected.index("...")
    tail = len(expected) - 1 - (len(expected) - 1 - expected[::-1].index("..."))
    return printed[:head] + ["..."] + (printed[-tail:] if tail else [])


@functools.cache
def rooted():
    """Whether there may be namespaces, and interfaces in them."""
    attempt = ["unshare", "-mn", "sh", "-c", f"{OWN_NETWORK} && ip link add type veth"]
    return subprocess.run(attempt, capture_output=True).returncode == 0


def why_skipped(step):
    if step.root and not rooted():
        return "needs root, and the right to make network namespaces"
    missing = [tool for tool in TOOLS
               if re.search(rf"\b{tool}\b", step.command) and shutil.which(tool) is None]
    return f"needs {', '.join(missing)}" if missing else None


def skipped_blocks(steps):
    """Why blocks are skipped: one that lacks something as a whole, the blocks of root behind it, and
    those that read captures which it would have made."""
    reasons, root, unmade, made = {}, None, set(), set()
    for step in steps:
        captures = set(re.findall(r"\b\w+\.pcap\b", step.command))
        why = (why_skipped(step) or reasons.get(step.block) or (root if step.root else None) or
               next((f"needs {name}" for name in sorted(captures & unmade)), None))
        if why:
            reasons.setdefault(step.block, why)
            root = root or (why if step.root else None)
            unmade |= captures - made
        else:
            made |= captures
    return reasons


def main():
    programs = os.path.abspath(sys.argv[1])
    update = "--update" in sys.argv[2:]
    with open(PAGE) as file:
        lines = file.read().splitlines()
    steps = steps_of(lines)
    reasons = skipped_blocks(steps)
    differing, skipped, changes = 0, [], []
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as directory:
        shell = Shell(directory, programs)
        try:
            for step in steps:
                if step.block in reasons:
                    skipped.append(f"{reasons[step.block]}: {step.command}")
                    continue
                printed = shell.run(step)
                expected = [line for line in step.expected if line != "^C"]
                if matches([plain(line, step.varies) for line in expected],
                           [plain(line, step.varies) for line in printed]):
                    continue
                differing += 1
                new = elided(expected, printed) + (["^C"] if step.interrupted() else [])
                changes.append((step, new))
                if not update:
                    print("\n".join(difflib.unified_diff(
                        step.expected, new, f"page, line {step.first}", step.command, lineterm="")))
        finally:
            shell.close()
    for reason in skipped:
        print(f"skipped, {reason}")
    if update:
        for step, new in reversed(changes):
            lines[step.first:step.end] = [(step.indent + line).rstrip() for line in new]
        with open(PAGE, "w") as file:
            file.write("\n".join(lines) + "\n")
    print(f"{len(steps)} commands, {len(skipped)} skipped, {differing} "
          f"{'brought up to date' if update else 'print something else'}")
    return 0 if update else bool(differing)


try:
    sys.exit(main())
except TimeoutError as error:
    sys.exit(f"operating.py: {error}")
