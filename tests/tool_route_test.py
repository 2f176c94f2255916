#!/usr/bin/env python3
"""qxcurl route and IPv6 servers, with the real binary against the emulator."""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR = os.environ.get("QXCURL_SOURCE_DIR",
                            os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARY_DIR = os.environ.get("QXCURL_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))
TOOL = os.path.join(BINARY_DIR, "qxcurl")
SERVER, SOURCE = "127.0.1.80", "127.0.1.81"


def emulator(pki, host, log):
    proc = subprocess.Popen(
        [sys.executable, os.path.join(SOURCE_DIR, "testing/emulator/emulator.py"),
         "--pki", pki, "--host", host, "--log", log],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    m = re.match(r"READY port=(\d+)", proc.stdout.readline())
    return proc, int(m.group(1)) if m else 0


class RouteTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        pki = os.path.join(BINARY_DIR, "testpki")
        subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "testing/pki/gen_pki.py"), pki],
                       check=True, stdout=subprocess.DEVNULL)
        cls.root = tempfile.mkdtemp(prefix="qxroute-")
        os.makedirs(os.path.join(cls.root, "arvion"))
        # The IPv6 one stays at port 0 on a host without IPv6.
        cls.emulators = [emulator(pki, host, os.path.join(cls.root, "emulator%d.log" % i))
                         for i, host in enumerate((SERVER, "::1"))]
        assert cls.emulators[0][1], "emulator on %s did not start" % SERVER

    @classmethod
    def tearDownClass(cls):
        for proc, _ in cls.emulators:
            proc.send_signal(signal.SIGTERM)
            proc.wait(5)
            proc.stdout.close()
        shutil.rmtree(cls.root, ignore_errors=True)

    def run_tool(self, config, *args):
        with open(os.path.join(self.root, "arvion/arvion.conf"), "w") as f:
            f.write(config)
        env = dict(os.environ, ARVION_ROOT=self.root, HOME=self.root)
        env.pop("QXCURL_LOG", None)
        return subprocess.run([TOOL] + list(args), env=env, capture_output=True, text=True,
                              timeout=60)

    def test_route_shows_rule_source_and_outcome(self):
        port = str(self.emulators[0][1])
        cases = [
            ("PREFERRED_NETWORK = 127.0.1.0/24 ONLY %s\n" % SOURCE, 0,
             ["[1] 127.0.1.0/24 ONLY " + SOURCE, "source:  " + SOURCE,
              "connected in", "from " + SOURCE]),
            ("PREFERRED_NETWORK = bogus\nPREFERRED_NETWORK = %s PROHIBITED\n" % SERVER, 3,
             ["[2] %s PROHIBITED" % SERVER, "PROHIBITED: never dialled"]),
            ("", 0, ["rule:    none (permitted, no binding)", "source:  chosen by the system"]),
        ]
        for config, code, texts in cases:
            r = self.run_tool(config, "route", "--server", SERVER, "--port", port)
            self.assertEqual(code, r.returncode, r.stdout + r.stderr)
            self.assertIn("route to %s port %s: 1 address" % (SERVER, port), r.stdout)
            for t in texts:
                self.assertIn(t, r.stdout)
        r = self.run_tool("", "route", "--port", port)
        self.assertEqual(2, r.returncode)

    def test_ipv6_literal_server(self):
        if not self.emulators[1][1]:
            self.skipTest("no IPv6 loopback on this host")
        port = str(self.emulators[1][1])
        for server in ("::1", "[::1]"):
            r = self.run_tool("", "--server", server, "--port", port, "--insecure",
                              "GET", "arvion/ping")
            self.assertEqual(0, r.returncode, r.stderr)
            self.assertEqual("pong", r.stdout.strip())


if __name__ == "__main__":
    unittest.main()
