#!/usr/bin/env python3
"""The Python client: its layouts against the C headers, and its calls against a running engine.

python_client_test.py SOURCE-DIRECTORY BIN-DIRECTORY
"""
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE, BIN = sys.argv.pop(1), sys.argv.pop(1)
sys.dont_write_bytecode = True
sys.path.insert(0, SOURCE + "/python")
import lyr_host  # noqa: E402
from lyr_host import layouts  # noqa: E402
from lyr_host.layouts import sizeof  # noqa: E402

HEADERS = ["mund/messages.h", "mund/reconciliation_messages.h", "mund/statistics_messages.h",
           "mund/module_objects.h", "mund/table_entries.h", "mund/wire.h"]


class Layouts(unittest.TestCase):
    def test_are_those_of_the_headers(self):
        checks = ["sizeof(%s) == %d" % (name, sizeof(layout))
                  for name, layout in layouts.structures().items()]
        checks += ["offsetof(%s, %s) == %d" % (name, field[0], getattr(layout, field[0]).offset)
                   for name, layout in layouts.structures().items() for field in layout._fields_]
        checks += ["sizeof(((%s *)0)->%s) == %d" % (name, field[0], getattr(layout, field[0]).size)
                   for name, layout in layouts.structures().items() for field in layout._fields_]
        checks += ["%s == %du" % constant for constant in layouts.CONSTANTS.items()]
        checks += ["MUND_OP_%s == %d" % (name, code) for code, name in enumerate(layouts.OPERATIONS)]
        checks += ["sizeof(%s) == sizeof(\"%s\")" % (key, value[0])
                   for key, value in layouts.OBJECTS.items()]
        text = "".join('#include "%s"\n' % name for name in HEADERS + ["mund/operations.h"])
        text += "".join('_Static_assert(%s, "");\n' % check for check in checks)
        run = subprocess.run(["cc", "-std=c11", "-fsyntax-only", "-x", "c", "-",
                              "-I", SOURCE + "/src/engine/include"], input=text, text=True,
                             stderr=subprocess.PIPE, check=False)
        self.assertEqual(run.stderr, "")


class AgainstAnEngine(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.path = self.directory.name + "/socket"
        commands = self.directory.name + "/commands"
        with open(commands, "w") as file:
            file.write("source add 1 192.168.10.9 --if 7\n"
                       "tunnel add 192.168.10.10 12380 192.168.10.9 5246 --node 3\n")
        self.engine = subprocess.Popen(
            [BIN + "/kes_engine", "--serve", "--rx-port", "7", "--log", "/dev/null", "--replay",
             SOURCE + "/tests/data/ap-session.pcap", "--exec", commands, "--control", self.path],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        end = time.monotonic() + 20
        self.client = self.connect(end)
        while self.client.state()["received"] < 422 and time.monotonic() < end:
            time.sleep(0.02)

    def connect(self, end):
        """The socket's file is there a moment before the engine listens."""
        while True:
            try:
                return lyr_host.Client(self.path)
            except lyr_host.NoEngine:
                if time.monotonic() > end:
                    raise
                time.sleep(0.02)

    def tearDown(self):
        self.client.close()
        self.engine.terminate()
        self.engine.wait()
        self.directory.cleanup()

    def test_every_operation(self):
        client = self.client
        tunnel = lyr_host.Tunnel("2001:db8::1", 5246, "2001:db8::fe", 5246, instance=5)
        session = lyr_host.Session("00112233445566778899aabbccddeeff", 5)
        self.assertEqual(client.packet_counters()["control"].received, 222)
        client.add_tunnel(tunnel)
        client.add_session(session)
        client.set_stations(1, 2)
        self.assertEqual(client.stations(), (1, 2))
        self.assertEqual(client.count_tunnels(5246, ipv6=True), 1)
        self.assertEqual([t.instance for t in client.tunnels_with_port(5246)], [3])
        self.assertEqual(sorted(t.instance for t in client.tunnels()), [3, 5])
        self.assertEqual(list(client.sessions()), [session])
        client.add_source(lyr_host.Source(1, "192.168.10.8", 7))
        client.delete_source(lyr_host.Source(1, "192.168.10.8", 7))
        client.set_sources({2: lyr_host.Source(1, "2001:db8::fe", 7)})
        self.assertEqual(str(client.sources()[2].address), "2001:db8::fe")
        client.set_trace(3, source="10.0.0.1", message_type=13)
        self.assertEqual((client.trace().level, str(client.trace().source)), (3, "10.0.0.1"))
        client.clear_trace()
        client.set_ping_peer("10.0.0.1")
        self.assertEqual(str(client.ping()[0]), "10.0.0.1")
        self.assertEqual(client.ping_counters()["rx in"].packets, 0)
        client.reset_ping_counters()
        client.select_message_type(13)
        self.assertEqual(client.message_type_counters()[3].handed_over, 0)
        client.reset_message_type_counters()
        self.assertEqual(list(client.probes()), [])
        client.clear_probes()
        client.begin_audit(5)
        client.confirm_tunnel(tunnel)
        client.confirm_session(session)
        client.finish_audit(5)
        client.audit(3, [])
        self.assertTrue(client.settle())
        self.assertEqual([t.instance for t in client.tunnels()], [5])
        self.assertEqual(str(client.removals()[0].source), "192.168.10.10")
        client.clear_removals()
        client.reset_packet_counters()
        client.delete_tunnel(tunnel)
        client.delete_session(session)
        self.assertEqual(len(client.channels()), client.last_instance() + 1)
        self.assertFalse(client.drop_watch().alarm_raised)
        self.assertEqual(client.explain(bytes(60))["fate"], "returned")
        for key in layouts.OBJECTS:
            client.read(key)

    def test_errors_are_exceptions(self):
        client = self.client
        with self.assertRaises(lyr_host.OperationFailed) as failed:
            client.add_tunnel(lyr_host.Tunnel("1.1.1.1", 1, "2.2.2.2", 2, instance=1000))
        self.assertEqual(failed.exception.result, 1)
        for wrong in (lyr_host.Tunnel("1.1.1.1", 70000, "2.2.2.2", 2, 0),
                      lyr_host.Tunnel("1.1.1.1", 1, "::1", 2, 0), lyr_host.Session("12", 0)):
            with self.assertRaises(ValueError):
                (client.add_session if isinstance(wrong, lyr_host.Session)
                 else client.add_tunnel)(wrong)
        with self.assertRaisesRegex(lyr_host.Refused, "g_none"):
            client.object("g_none")
        client.follow()
        with self.assertRaisesRegex(ValueError, "this client follows"):
            client.state()
        other = lyr_host.Client(self.path)
        self.engine.terminate()
        self.engine.wait()
        with self.assertRaisesRegex(lyr_host.NoEngine, "closed the connection"):
            other.state()
        with self.assertRaisesRegex(lyr_host.NoEngine, "no engine at"):
            lyr_host.Client(self.path)


if __name__ == "__main__":
    unittest.main()
