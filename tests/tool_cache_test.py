#!/usr/bin/env python3
"""qxcurl's cached GET (--cache, --ttl, "served from cache") and its cache command."""
import json
import os
import re
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tool_test import ToolHost  # noqa: E402

PATH = "arvion/security/cacert"  # JSON, no token needed


class ToolCacheTest(unittest.TestCase):
    host = None

    @classmethod
    def setUpClass(cls):
        cls.host = ToolHost()

    @classmethod
    def tearDownClass(cls):
        cls.host.close()

    def tool(self, *args, code=0):
        r = self.host.run(*args, server=False)
        self.assertEqual(code, r.returncode, "stdout: %r\nstderr: %r" % (r.stdout, r.stderr))
        return r

    def target(self):
        return ["--server", "localhost", "--port", str(self.host.port)]

    def get(self, *args):
        return self.tool(*self.target(), "--retry-window", "0", "--insecure", "--include",
                         *args, "GET", PATH)

    def test_cached_get_list_and_clear(self):
        first = self.get("--cache", "1", "--ttl", "120")
        self.assertTrue(first.stdout.startswith("HTTP/1.1 200"), first.stdout[:200])
        second = self.get("--cache", "1")
        head, _, body = second.stdout.partition("\n\n")
        self.assertEqual("served from cache", head)
        self.assertEqual(json.loads(first.stdout.partition("\n\n")[2]), json.loads(body))
        self.assertEqual(1, len(self.host.requests(PATH)))
        self.get("--cache", "2", "--ttl", "120")
        self.assertEqual(2, len(self.host.requests(PATH)))

        listed = self.tool("cache", *self.target()).stdout
        self.assertRegex(listed, r"^%s  expires \S+Z \(in (1[01]\d|120) s\)  \d+ bytes\n$"
                         % re.escape(PATH))
        cleared = self.tool("cache", *self.target(), "--clear").stdout
        self.assertEqual("Removed 1 cached results of localhost:%d\n" % self.host.port, cleared)
        self.assertIn("No cached results", self.tool("cache", *self.target(), "--list").stdout)

    def test_usage_errors(self):
        self.assertIn("--cache applies to GET only", self.tool(
            *self.target(), "--cache", "1", "--data", "{}", "POST", PATH, code=2).stderr)
        self.assertIn("exclude each other", self.tool(
            "cache", *self.target(), "--list", "--clear", code=2).stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
