#!/usr/bin/env python3
"""qxcurl route and IPv6 servers, with the real binary against the emulator."""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

SOURCE_DIR = os.environ.get("QXCURL_SOURCE_DIR",
                            os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARY_DIR = os.environ.get("QXCURL_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))
TOOL = os.path.join(BINARY_DIR, "qxcurl")
SERVER, SOURCE = "127.0.1.80", "127.0.1.81"


def have_ipv6():
    try:
        with socket.socket(socket.AF_INET6) as s:
            s.bind(("::1", 0))
        return True
    except OSError:
        return False


class Emulator:
    def __init__(self, pki, host, root):
        self.proc = subprocess.Popen(
            [sys.executable, os.path.join(SOURCE_DIR, "testing/emulator/emulator.py"),
             "--pki", pki, "--host", host, "--log", os.path.join(root, "emulator-%s.log" % host)],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        m = re.match(r"READY port=(\d+)", self.proc.stdout.readline())
        if not m:
            self.stop()
            raise RuntimeError("emulator on %s did not start" % host)
        self.port = int(m.group(1))

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.wait(5)
        self.proc.stdout.close()


class RouteTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pki = os.path.join(BINARY_DIR, "testpki")
        subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "testing/pki/gen_pki.py"),
                        cls.pki], check=True, stdout=subprocess.DEVNULL)
        cls.root = tempfile.mkdtemp(prefix="qxroute-")
        os.makedirs(os.path.join(cls.root, "arvion"))
        cls.emulators = [Emulator(cls.pki, SERVER, cls.root)]
        if have_ipv6():
            cls.emulators.append(Emulator(cls.pki, "::1", cls.root))

    @classmethod
    def tearDownClass(cls):
        for e in cls.emulators:
            e.stop()
        shutil.rmtree(cls.root, ignore_errors=True)

    def run_tool(self, config, *args):
        with open(os.path.join(self.root, "arvion/arvion.conf"), "w") as f:
            f.write(config)
        env = dict(os.environ, ARVION_ROOT=self.root, HOME=self.root)
        env.pop("QXCURL_LOG", None)
        return subprocess.run([TOOL] + list(args), env=env, capture_output=True, text=True,
                              timeout=60)

    def test_route_shows_rule_source_and_outcome(self):
        port = str(self.emulators[0].port)
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
        if len(self.emulators) < 2:
            self.skipTest("no IPv6 loopback on this host")
        port = str(self.emulators[1].port)
        for server in ("::1", "[::1]"):
            r = self.run_tool("", "--server", server, "--port", port, "--insecure",
                              "GET", "arvion/ping")
            self.assertEqual(0, r.returncode, r.stderr)
            self.assertEqual("pong", r.stdout.strip())


if __name__ == "__main__":
    unittest.main()
