#!/usr/bin/env python3
"""qxcurl route, with the real binary against the emulator."""
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
        cls.emulator, cls.port = emulator(pki, SERVER, os.path.join(cls.root, "emulator.log"))
        assert cls.port, "emulator on %s did not start" % SERVER

    @classmethod
    def tearDownClass(cls):
        cls.emulator.send_signal(signal.SIGTERM)
        cls.emulator.wait(5)
        cls.emulator.stdout.close()
        shutil.rmtree(cls.root, ignore_errors=True)

    def run_tool(self, config, *args):
        with open(os.path.join(self.root, "arvion/arvion.conf"), "w") as f:
            f.write(config)
        env = dict(os.environ, ARVION_ROOT=self.root, HOME=self.root)
        env.pop("QXCURL_LOG", None)
        return subprocess.run([TOOL] + list(args), env=env, capture_output=True, text=True,
                              timeout=60)

    def test_route_shows_rule_source_and_outcome(self):
        port = str(self.port)
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


if __name__ == "__main__":
    unittest.main()
