#!/usr/bin/env python3
"""Scrapes kes_engine --metrics: metrics_endpoint.py BIN-DIRECTORY EXAMPLES-DIRECTORY

Needs promtool for a part of it; without it, that part is skipped (exit status 77).
"""
import http.client
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

BIN, EXAMPLES = (os.path.abspath(path) for path in sys.argv[1:3])


def start(place, *arguments):
    """An engine that serves metrics, and the port that it has got."""
    engine = subprocess.Popen([f"{BIN}/kes_engine", "--serve", "--control", "socket", "--log", "log",
                               "--metrics", place, *arguments], text=True,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    for line in engine.stderr:
        found = re.fullmatch(r"serving metrics on http://(.*):(\d+)/metrics\n", line)
        if found:
            return engine, found[1], int(found[2])
    raise AssertionError(f"--metrics {place}: not served")


def stop(engine):
    engine.send_signal(signal.SIGTERM)
    engine.communicate(timeout=30)
    assert engine.returncode == 0, engine.returncode


def ask(port, method, path):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request(method, path)
    answer = connection.getresponse()
    return answer.status, answer.getheader("Content-Type"), answer.read().decode(), answer


def without_changes(text):
    """What does not count the readers themselves."""
    return re.sub(r"^(lyr_host_memory_.*) \d+$", r"\1", text, flags=re.M)


def check_refusals(port):
    for place, status, words in [
            ("x", 2, "'x' is no port"), ("127.0.0.1:65536", 2, "'65536' is no port"),
            ("::1:80", 2, "stands in brackets"), ("localhost:80", 2, "'localhost' is no IPv4"),
            (":80", 2, "'' is no IPv4"), (f"{port}", 1, "Address already in use"),
            ("192.0.2.1:0", 1, "192.0.2.1:0: ")]:
        run = subprocess.run([f"{BIN}/kes_engine", "--serve", "--control", "other", "--metrics",
                              place], capture_output=True, text=True, timeout=10)
        assert run.returncode == status and words in run.stderr, (place, run)
        assert "serving" not in run.stderr, run.stderr


def check_answers(port):
    status, kind, text, _ = ask(port, "GET", "/metrics")
    assert status == 200 and kind == "text/plain; version=0.0.4; charset=utf-8", (status, kind)
    printed = subprocess.run([f"{BIN}/lyrctl", "--control", "socket", "metrics"], text=True,
                             check=True, capture_output=True).stdout
    assert without_changes(text) == without_changes(printed), "not what lyrctl metrics prints"
    for method, path, expected in [("HEAD", "/metrics", 200), ("GET", "/", 200),
                                   ("GET", "/metrics?x", 200), ("GET", "/other", 404),
                                   ("POST", "/metrics", 405), ("DELETE", "/", 405)]:
        status, _, body, answer = ask(port, method, path)
        assert status == expected, (method, path, status)
        assert (body == "") == (method == "HEAD"), (method, path, body)
        assert expected != 405 or answer.getheader("Allow") == "GET, HEAD"
    # Askers that say nothing hold up nobody but those behind the bound.
    silent = [socket.create_connection(("127.0.0.1", port)) for _ in range(8)]
    assert ask(port, "GET", "/metrics")[0] == 200
    for one in silent:
        one.close()
    return text


def check_with_promtool(text):
    for arguments, given in [(["check", "metrics"], text),
                             (["check", "rules", f"{EXAMPLES}/alerts.yml"], None),
                             (["test", "rules", f"{EXAMPLES}/alerts_test.yml"], None)]:
        run = subprocess.run(["promtool", *arguments], input=given, text=True, capture_output=True)
        assert run.returncode == 0 and not run.stderr, run


def check_names(text):
    """The dashboard and the alerts ask for nothing that there is not."""
    with open(f"{EXAMPLES}/dashboard.json") as file:
        dashboard = json.load(file)
    asked = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    with open(f"{EXAMPLES}/alerts.yml") as file:
        asked.append(file.read())
    names = set(re.findall(r"^# TYPE (\w+)", text, re.M))
    labels = set(re.findall(r"[{,](\w+)=", text)) | {"job", "instance"}
    for expression in asked:
        assert set(re.findall(r"lyr_(?:host|engine)_\w+", expression)) <= names, expression
        assert set(re.findall(r"[{,](\w+)=", expression)) <= labels, expression


def main():
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        with open("commands", "w") as file:
            file.write("msgtype select echo-request\n")
        engine, address, port = start("0", "--exec", "commands")
        assert address == "127.0.0.1", address
        check_refusals(port)
        text = check_answers(port)
        stop(engine)
        engine, address, _ = start("[::1]:0")
        assert address == "[::1]", address
        stop(engine)
        os.chdir("/")
    check_names(text)
    if shutil.which("promtool") is None:
        print("promtool is not installed: what it says of metrics and rules is not known")
        return 77
    check_with_promtool(text)
    return 0


sys.exit(main())
