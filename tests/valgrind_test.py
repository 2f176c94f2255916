#!/usr/bin/env python3
"""qxcurl under valgrind's memcheck: no invalid access, no definite leak.

Skipped when valgrind is missing or the build is instrumented with
AddressSanitizer (the two do not run together).
"""
import os
import shutil
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from tool_test import BINARY_DIR, PASSWORD, SOURCE_DIR, TOOL, USER, ToolHost  # noqa: E402

SUPPRESSIONS = os.path.join(SOURCE_DIR, "tests", "valgrind.supp")
LIBRARY = os.path.join(BINARY_DIR, "libqxcurl.so")


def sanitizer_build():
    if os.environ.get("QXCURL_SANITIZE", "").upper() in ("1", "ON", "YES", "TRUE"):
        return True
    for binary in (TOOL, LIBRARY):
        if not os.path.exists(binary):
            continue
        ldd = subprocess.run(["ldd", binary], capture_output=True, text=True)
        if "libasan" in ldd.stdout:
            return True
        nm = subprocess.run(["nm", "-D", binary], capture_output=True, text=True)
        if "__asan_init" in nm.stdout:
            return True
    return False


@unittest.skipIf(shutil.which("valgrind") is None, "valgrind is not installed")
@unittest.skipIf(sanitizer_build(), "sanitizer build: valgrind cannot run it")
class ValgrindTest(unittest.TestCase):
    host = None

    @classmethod
    def setUpClass(cls):
        cls.host = ToolHost()

    @classmethod
    def tearDownClass(cls):
        cls.host.close()

    def memcheck(self, *args, expect=0):
        argv = ["valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
                "--errors-for-leak-kinds=definite", "--suppressions=" + SUPPRESSIONS, TOOL,
                *args]
        r = subprocess.run(argv, capture_output=True, text=True, env=self.host.env(),
                           timeout=240)
        self.assertEqual(expect, r.returncode, r.stderr[-6000:])
        self.assertNotIn("==", r.stderr, "valgrind reported something")
        return r

    def test_requests_and_login(self):
        target = ["--server", "localhost", "--port", str(self.host.port)]
        pw = self.host.path("pw")
        with open(pw, "w") as f:
            f.write(PASSWORD + "\n")
        cases = [
            ("own CA, verified", ["--ca-type", "QXCA", "--cacert",
                                  self.host.path("var/webtruststore/cacert.pem"),
                                  "GET", "arvion/ping"]),
            ("certificate login", ["--session", "token", "GET", "arvion/config/hosts"]),
            ("external CA with revocation check", ["--ca-type", "ECA", "GET", "arvion/ping"]),
            ("asynchronous client, login and kept connections",
             ["--session", "token", "--repeat", "6", "--parallel", "3", "GET",
              "arvion/config/hosts"]),
        ]
        for name, args in cases:
            with self.subTest(name):
                self.memcheck(*target, "--retry-window", "0", *args)
        r = self.memcheck("login", *target, "--user", USER, "--domain-type", "unixpwd",
                          "--password-file", pw)
        self.assertIn("Logged in", r.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
