#!/usr/bin/env python3
"""Requests in parallel from one thread: `qxcurl --repeat N --parallel M` and the
asynchronous client's example program, against the emulated master server."""
import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tool_test import BINARY_DIR, ToolHost  # noqa: E402

EXAMPLE = os.path.join(BINARY_DIR, "examples", "qxcurl_async_example")


class AsyncToolTest(unittest.TestCase):
    host = None

    @classmethod
    def setUpClass(cls):
        cls.host = ToolHost()

    @classmethod
    def tearDownClass(cls):
        cls.host.close()

    def setUp(self):
        self.host.control_call("POST", "reset")

    def repeat(self, n, m, *args):
        return self.host.run("--repeat", str(n), "--parallel", str(m), "--ca-type", "QXCA",
                             "--cacert", self.host.path("var/webtruststore/cacert.pem"), *args)

    def test_summary_numbered_answers_and_connections(self):
        self.host.control_call("POST", "faults", {"path": "arvion/ping", "kind": "status",
                                                  "status": 500, "count": 1})
        r = self.repeat(24, 5, "--include", "GET", "arvion/ping")
        self.assertEqual(1, r.returncode, r.stderr)
        self.assertIn("Requests:\t24 (at most 5 in flight)", r.stdout)
        self.assertIn("Completed:\t24\n  Failed:\t0", r.stdout)
        self.assertIn("[200]\t23\n  [500]\t1", r.stdout)
        self.assertRegex(r.stdout, r"Median:\t[0-9.]+ ms\n  99th pct:\t[0-9.]+ ms")
        for n in range(1, 25):
            self.assertRegex(r.stdout, r"(?m)^\[%d\] HTTP/1.1 (200|500) " % n)
        self.assertEqual(23, len(re.findall(r"(?m)^\[\d+\] pong$", r.stdout)))
        self.assertLessEqual(len({q["connection"] for q in self.host.requests()}), 5)
        for args in (["--repeat", "0"], ["--parallel", "2"], ["--repeat", "2", "--token", "t"]):
            with self.subTest(args=args):
                self.assertEqual(2, self.host.run(*args, "GET", "arvion/ping").returncode)

    def test_example_program_select_and_poll(self):
        for mode in ([], ["--poll"]):
            with self.subTest(mode=mode):
                r = subprocess.run(
                    [EXAMPLE, "--server", "localhost", "--port", str(self.host.port),
                     "--cacert", self.host.path("var/webtruststore/cacert.pem"),
                     "--count", "12", "--token", "--path", "arvion/config/hosts"] + mode,
                    capture_output=True, text=True, env=self.host.env(), timeout=60)
                self.assertEqual(0, r.returncode, r.stdout + r.stderr)
                self.assertIn("12 of 12 requests succeeded through %s()"
                              % ("poll" if mode else "select"), r.stdout)


if __name__ == "__main__":
    unittest.main()
