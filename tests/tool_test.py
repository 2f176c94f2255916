#!/usr/bin/env python3
"""The qxcurl command-line tool against the emulated master server: one
ToolHost (testing/tool_host.py) for the whole file, the real binary."""
import json
import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                                "testing"))
from tool_host import BINARY_DIR, PASSWORD, USER, ToolHost  # noqa: E402

LONG_TOKEN = "tok-" + "9d2e" * 8 + "-end"
# This suite's tunnels: the emulator's own, which reaches it whatever port a
# CONNECT names, and an address where nothing listens; a source address.
TUNNEL, DEAD_TUNNEL, SOURCE = "127.0.2.41", "127.0.2.40", "127.0.2.42"
CACHED = "arvion/security/cacert"  # JSON, no token needed


class ToolTest(unittest.TestCase):
    host = None

    @classmethod
    def setUpClass(cls):
        cls.host = ToolHost(tunnel=TUNNEL + ",to=self")

    @classmethod
    def tearDownClass(cls):
        cls.host.close()

    def setUp(self):
        self.host.control_call("POST", "reset")
        self.host.control_call("POST", "config", {"certMode": "normal"})
        self.host.write_config()
        # Every test starts without a cached machine token.
        for name in os.listdir(self.host.path("tmp")):
            if name.endswith("webtoken.dat"):
                os.remove(self.host.path("tmp", name))

    def assertExit(self, result, code):
        self.assertEqual(code, result.returncode,
                         "stdout: %r\nstderr: %r" % (result.stdout, result.stderr))

    def write(self, name, text):
        p = self.host.path(name)
        with open(p, "w") as f:
            f.write(text)
        return p

    def login(self, password_file, *args):
        return self.host.run("login", "--user", USER, "--domain-type", "unixpwd",
                             "--password-file", password_file, *args)

    def test_exit_status_follows_outcome(self):
        self.host.control_call("POST", "faults", {"path": "arvion/ping", "kind": "503",
                                                  "count": 1})
        cases = [
            # args, exit, stdout pattern, stderr pattern; the 503 hits the first ping only
            (("GET", "arvion/ping"), 3, r"^", r"qxcurl: status \d+: .+\nHTTP 503\n"),
            (("GET", "/arvion/ping"), 0, r"^pong$", r"^$"),  # a leading / is dropped
            (("GET", "arvion/nothing"), 1, r"8004", r"^HTTP 404\n$"),
            (("--token", LONG_TOKEN, "GET", "arvion/config/hosts"), 1, r"8001", r"^HTTP 401\n$"),
        ]
        for args, code, out, err in cases:
            with self.subTest(args=args):
                r = self.host.run(*args)
                self.assertExit(r, code)
                self.assertRegex(r.stdout, out)
                self.assertRegex(r.stderr, err)
        self.host.control_call("POST", "config", {"certMode": "wrongname"})
        r = self.host.run("GET", "arvion/ping")
        self.assertExit(r, 3)
        self.assertRegex(r.stderr, r"status 8509: .*\n.*certificate names: wrong1\.example, "
                         r"wrong2\.example\n")

    def test_usage_errors(self):
        # The tool's own refusals and the library's (status 20): none reaches the server.
        cases = [
            ((), True, r"expected METHOD and PATH"),
            (("POST", "arvion/config/hosts"), True, r"POST needs --data"),
            # What the library refuses with status 20.
            (("--server", "", "GET", "arvion/ping"), False,
             r"--server is required\nqxcurl: status 20: "),
            (("--session", "bogus", "GET", "arvion/ping"), True,
             r"bad --session 'bogus'\nqxcurl: status 20: "),
        ]
        for args, server, err in cases:
            with self.subTest(args=args):
                r = self.host.run(*args, server=server)
                self.assertExit(r, 2)
                self.assertRegex(r.stderr, err)
                self.assertEqual("", r.stdout)
        self.assertEqual([], self.host.requests(), "a usage error reached the server")

    def test_tunnels(self):
        # Only the tunnel reaches the master: the direct attempt is refused (port
        # 1), the first tunnel is dead, the second works and is remembered.
        r = self.host.run("--port", "1", "--tunnel", DEAD_TUNNEL, "--tunnel", TUNNEL,
                          "-i", "--verbose", "GET", "arvion/ping")
        self.assertExit(r, 0)
        self.assertTrue(r.stdout.startswith("Tunnel: %s:1556\nHTTP/1.1 200 Connection" % TUNNEL))
        self.assertIn("qxcurl: tunnel %s:1556\n" % TUNNEL, r.stderr)
        self.assertIn("[%s:1556]" % DEAD_TUNNEL, r.stderr)
        self.assertEqual(TUNNEL + "\n", self.host.run("tunnels").stdout)
        self.assertExit(self.host.run("tunnels", "--reset"), 0)
        self.assertEqual("", self.host.run("tunnels").stdout)

    def test_verbose_traces_of_every_login_show_no_credential(self):
        # Every client traces (the login clients too), as a hostile reader of
        # the log would want.
        self.host.write_config("ENABLE_QXCURL_VERBOSE = yes\n")
        try:
            r0 = self.host.run("--verbose", "--token", LONG_TOKEN, "GET", "arvion/config/hosts")
            self.assertIn("Authorization", r0.stderr)
            r1 = self.host.run("--verbose", "--session", "token", "GET", "arvion/config/hosts")
            self.assertExit(r1, 0)
            self.assertIn("Recv  data", r1.stderr)  # the login answer was traced
            machine = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]
            r2 = self.login(self.write("pw", PASSWORD + "\r\n"), "--verbose")
            self.assertExit(r2, 0)
            self.assertIn('"password": "***"', r2.stderr)  # the body was traced, masked
            self.host.run("--user-session", "GET", "arvion/config/hosts")
            user = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]
            for secret in (LONG_TOKEN[4:-4], machine[-24:], user[-24:], PASSWORD):
                for r in (r0, r1, r2):
                    self.assertNotIn(secret, r.stderr)
        finally:
            self.host.write_config()
            self.host.run("logout")

    def test_revocation_switches(self):
        certmap = self.host.path("var/certmap.json")
        with open(certmap) as f:
            original = f.read()
        no_map_crl = json.loads(original)
        for entry in no_map_crl["servers"].values():
            entry["ECA"]["crl"] = ""
        eca, crl, expired = (os.path.join(self.host.pki, "eca", name)
                             for name in ("cacert.pem", "crl.pem", "crl_expired.pem"))
        cases = [
            # server certificate, the map's CRL kept, args, exit, stderr
            ("revoked", True, ("--crl-level", "0"), 0, r"^$"),
            # Forgiving a failed check does not forgive a revocation.
            ("revoked", True, ("--allow-failed-crl",), 3, r"status 9318: "),
            # A CA bundle of the caller's keeps the request an ECA one: SNI
            # "ECA" and the revocation check.
            ("revoked", True, ("--cacert", eca), 3, r"status 9318: "),
            ("revoked", True, ("--cacert", eca, "--crl-level", "0"), 0, r"^$"),
            # Without the map's CRL only --crl supplies one (the distribution
            # point never answers: fault matrix).
            ("normal", False, ("--no-crl-download", "--crl", crl), 0, r"^$"),
            ("normal", False, ("--no-crl-download", "--crl", expired), 3, r"status 9314: "),
        ]
        try:
            for cert, map_crl, args, code, err in cases:
                with self.subTest(args=args):
                    self.host.control_call("POST", "reset")
                    self.host.control_call("POST", "config", {"certMode": cert})
                    with open(certmap, "w") as f:
                        f.write(original if map_crl else json.dumps(no_map_crl))
                    r = self.host.run(*args, "--ca-type", "ECA", "GET", "arvion/ping")
                    self.assertExit(r, code)
                    self.assertRegex(r.stderr, err)
                    if code == 0:
                        self.assertEqual(["ECA"], [q["sni"] for q in self.host.requests()])
        finally:
            with open(certmap, "w") as f:
                f.write(original)

    def test_login_session_logout_round_trip(self):
        pw = self.write("pw", PASSWORD + "\nsecond line\n")
        r = self.login(pw)
        self.assertExit(r, 0)
        self.assertEqual("Logged in to localhost\n", r.stdout)
        sent = json.loads(self.host.requests("arvion/login")[-1]["body"])
        self.assertEqual(("localhost", USER, PASSWORD),
                         (sent["domainName"], sent["userName"], sent["password"]))
        r = self.host.run("--user-session", "GET", "arvion/config/hosts")
        self.assertExit(r, 0)
        self.assertEqual("user", json.loads(r.stdout)["tokenKind"])
        session_token = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]
        r = self.host.run("logout")
        self.assertEqual("Logged out of localhost\n", r.stdout)
        self.assertEqual(session_token,
                         self.host.requests("arvion/logout")[-1]["headers"]["Authorization"])
        r = self.host.run("--user-session", "GET", "arvion/config/hosts")
        self.assertExit(r, 3)
        self.assertIn("no user session", r.stderr)
        self.assertEqual("Not logged in to localhost\n", self.host.run("logout").stdout)
        # Other password sources and refusals.
        for content, stdin, code in ((None, PASSWORD + "\n", 0), ("wrong\n", None, 3),
                                     ("\n", None, 2), (None, "", 2)):
            with self.subTest(content=content, stdin=stdin):
                args = ["login", "--user", USER, "--domain-type", "unixpwd"]
                if content is not None:
                    args += ["--password-file", self.write("pw", content)]
                r = self.host.run(*args, input=stdin)
                self.assertExit(r, code)
                self.assertNotIn(PASSWORD, r.stdout + r.stderr)

    def test_token_command(self):
        r = self.host.run("token", "--new")
        self.assertExit(r, 0)
        m = re.match(r"token: (ey)\.\.\.(.)\nexpires: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ "
                     r"\(in (\d+) s\)\n$", r.stdout)
        self.assertIsNotNone(m, r.stdout)
        self.assertGreater(int(m.group(3)), 3000)
        token = self.host.run("token", "--show").stdout.splitlines()[0][len("token: "):]
        self.assertEqual(3, len(token.split(".")))
        self.assertEqual(1, len(self.host.requests("arvion/loginwithcert")),
                         "a good cached token was not reused")
        r = self.host.run("token", "--clear")
        self.assertEqual("Token cleared for localhost\n", r.stdout)
        with open(self.host.path("tmp", "localhost.1.webtoken.dat")) as f:
            self.assertEqual("xxxx", f.readline().strip())

    def test_cached_get_list_and_clear(self):
        def get(*args):
            r = self.host.run("--insecure", "--include", *args, "GET", CACHED)
            self.assertExit(r, 0)
            return r.stdout
        first = get("--cache", "1", "--ttl", "120")
        self.assertTrue(first.startswith("HTTP/1.1 200"), first[:200])
        head, _, body = get("--cache", "1").partition("\n\n")
        self.assertEqual("served from cache", head)
        self.assertEqual(json.loads(first.partition("\n\n")[2]), json.loads(body))
        self.assertEqual(1, len(self.host.requests(CACHED)))
        get("--cache", "2", "--ttl", "120")
        self.assertEqual(2, len(self.host.requests(CACHED)))
        self.assertRegex(self.host.run("cache").stdout,
                         r"^%s  expires \S+Z \(in (1[01]\d|120) s\)  \d+ bytes\n$" % CACHED)
        self.assertEqual("Removed 1 cached results of localhost:%d\n" % self.host.port,
                         self.host.run("cache", "--clear").stdout)
        self.assertIn("No cached results", self.host.run("cache", "--list").stdout)
        for args, message in ((("--cache", "1", "--data", "{}", "POST", CACHED),
                               "--cache applies to GET only"),
                              (("cache", "--list", "--clear"), "exclude each other")):
            with self.subTest(args=args):
                self.assertIn(message, self.host.run(*args).stderr)

    def test_route_shows_rule_source_and_outcome(self):
        self.host.write_config("PREFERRED_NETWORK = bogus\nPREFERRED_NETWORK = 127.0.0.1 ONLY %s\n"
                               % SOURCE)
        r = self.host.run("route", "--server", "127.0.0.1", "--port", str(self.host.port),
                          server=False)
        self.assertExit(r, 0)
        for text in ("route to 127.0.0.1 port %d: 1 address" % self.host.port,
                     "[2] 127.0.0.1 ONLY " + SOURCE, "source:  " + SOURCE, "from " + SOURCE):
            self.assertIn(text, r.stdout)
        self.assertExit(self.host.run("route", "--port", "1", server=False), 2)

    def test_repeat_in_parallel(self):
        self.host.control_call("POST", "faults", {"path": "arvion/ping", "kind": "status",
                                                  "status": 500, "count": 1})
        r = self.host.run("--repeat", "24", "--parallel", "5", "--ca-type", "QXCA", "--cacert",
                          self.host.path("var/webtruststore/cacert.pem"), "--include", "GET",
                          "arvion/ping")
        self.assertExit(r, 1)
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
                self.assertExit(self.host.run(*args, "GET", "arvion/ping"), 2)

    def test_async_example_select_and_poll(self):
        example = os.path.join(BINARY_DIR, "examples", "qxcurl_async_example")
        for mode in ([], ["--poll"]):
            r = subprocess.run([example, "--server", "localhost", "--port", str(self.host.port),
                                "--cacert", self.host.path("var/webtruststore/cacert.pem"),
                                "--count", "12", "--token", "--path", "arvion/config/hosts"]
                               + mode, capture_output=True, text=True, env=self.host.env(),
                               timeout=60)
            self.assertIn("12 of 12 requests succeeded through %s()"
                          % ("poll" if mode else "select"), r.stdout, r.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
