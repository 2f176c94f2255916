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

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                "testing"))
from tool_host import BINARY_DIR, PASSWORD, SOURCE_DIR, TOOL, USER, ToolHost  # noqa: E402


def sanitizer_build():
    if os.environ.get("QXCURL_SANITIZE", "").upper() in ("1", "ON", "YES", "TRUE"):
        return True
    binaries = (b for b in (TOOL, os.path.join(BINARY_DIR, "libqxcurl.so")) if os.path.exists(b))
    return any("__asan_init" in subprocess.run(["nm", "-D", b], capture_output=True,
                                               text=True).stdout for b in binaries)


@unittest.skipIf(shutil.which("valgrind") is None, "valgrind is not installed")
@unittest.skipIf(sanitizer_build(), "sanitizer build: valgrind cannot run it")
class ValgrindTest(unittest.TestCase):
    def test_main_roads(self):
        host = ToolHost()
        self.addCleanup(host.close)
        target = ["--server", "localhost", "--port", str(host.port)]
        once = target + ["--retry-window", "0"]
        pw = host.path("pw")
        with open(pw, "w") as f:
            f.write(PASSWORD + "\n")
        cases = [
            ("certificate login", once + ["--session", "token", "GET", "arvion/config/hosts"]),
            ("external CA with revocation check", once + ["--ca-type", "ECA", "GET", "arvion/ping"]),
            ("asynchronous client, login and kept connections",
             once + ["--session", "token", "--repeat", "6", "--parallel", "3", "GET",
                     "arvion/config/hosts"]),
            ("user login", ["login"] + target + ["--user", USER, "--domain-type", "unixpwd",
                                                 "--password-file", pw]),
        ]
        for name, args in cases:
            with self.subTest(name):
                r = subprocess.run(
                    ["valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
                     "--errors-for-leak-kinds=definite",
                     "--suppressions=" + os.path.join(SOURCE_DIR, "tests", "valgrind.supp"),
                     TOOL, *args], capture_output=True, text=True, env=host.env(), timeout=240)
                self.assertEqual(0, r.returncode, r.stderr[-6000:])
                self.assertNotIn("==", r.stderr, "valgrind reported something")


if __name__ == "__main__":
    unittest.main(verbosity=2)
