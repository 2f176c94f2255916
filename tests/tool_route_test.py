#!/usr/bin/env python3
"""qxcurl route, with the real binary against the emulator."""
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tool_test import ToolHost  # noqa: E402

SERVER, SOURCE = "127.0.1.80", "127.0.1.81"


class RouteTest(unittest.TestCase):
    def test_route_shows_rule_source_and_outcome(self):
        host = ToolHost(host=SERVER)
        self.addCleanup(host.close)
        host.write_config("PREFERRED_NETWORK = bogus\nPREFERRED_NETWORK = 127.0.1.0/24 ONLY %s\n"
                          % SOURCE)
        r = host.run("route", "--server", SERVER, "--port", str(host.port), server=False)
        self.assertEqual(0, r.returncode, r.stdout + r.stderr)
        for text in ("route to %s port %d: 1 address" % (SERVER, host.port),
                     "[2] 127.0.1.0/24 ONLY " + SOURCE, "source:  " + SOURCE, "from " + SOURCE):
            self.assertIn(text, r.stdout)
        self.assertEqual(2, host.run("route", "--port", "1", server=False).returncode)


if __name__ == "__main__":
    unittest.main()
