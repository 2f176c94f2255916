#!/usr/bin/env python3
"""The qxcurl command-line tool against the emulated master server.

Builds a throw-away install root (ARVION_ROOT) with the shared test PKI, starts
one emulator for the whole file and runs the real binary.
"""
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

SOURCE_DIR = os.environ.get("QXCURL_SOURCE_DIR",
                            os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARY_DIR = os.environ.get("QXCURL_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))
TOOL = os.path.join(BINARY_DIR, "qxcurl")

# A password nothing else in a log could contain by chance.
USER, PASSWORD = "alice", "Pw-7f3a9c-never-logged"
LONG_TOKEN = "tok-" + "9d2e" * 8 + "-end"
# This suite's tunnels: the emulator's own, which reaches it whatever port a
# CONNECT names, and an address where nothing listens.
TUNNEL, DEAD_TUNNEL = "127.0.2.41", "127.0.2.40"


class ToolHost:
    """An install root, an emulator on loopback and a way to run the tool."""

    def __init__(self, tunnel=None):
        self.pki = os.path.join(BINARY_DIR, "testpki")
        subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "testing/pki/gen_pki.py"),
                        self.pki], check=True, stdout=subprocess.DEVNULL)
        self.root = tempfile.mkdtemp(prefix="qxtool-")
        for d in ("arvion/bin", "tmp", "home", "var/webtruststore", "var/global/webtruststore"):
            os.makedirs(os.path.join(self.root, d))
        os.symlink(self.pki, self.path("var/pki"))
        shutil.copy(os.path.join(self.pki, "certmap.json"), self.path("var/certmap.json"))
        for store in ("var/webtruststore", "var/global/webtruststore"):
            shutil.copy(os.path.join(self.pki, "qxca/ca.pem"), self.path(store, "cacert.pem"))
        certcmd = self.path("arvion/bin/qxcertcmd")
        shutil.copy(os.path.join(SOURCE_DIR, "testing/certcmd/qxcertcmd"), certcmd)
        os.chmod(certcmd, 0o755)
        self.write_config()
        users = self.path("users.json")
        with open(users, "w") as f:
            json.dump({"admin": "secret", USER: PASSWORD}, f)
        self.emulator_err = open(self.path("var/emulator.err"), "w")
        self.emulator = subprocess.Popen(
            [sys.executable, os.path.join(SOURCE_DIR, "testing/emulator/emulator.py"),
             "--pki", self.pki, "--users", users, "--log", self.path("var/emulator.log")]
            + (["--tunnel", tunnel] if tunnel else []),
            stdout=subprocess.PIPE, stderr=self.emulator_err, text=True)
        ready = self.emulator.stdout.readline()
        m = re.match(r"READY port=(\d+) control=(\d+)", ready)
        if not m:
            with open(self.path("var/emulator.err")) as f:
                why = f.read()
            self.close()
            raise RuntimeError("emulator did not start: " + why)
        self.port, self.control = int(m.group(1)), int(m.group(2))

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def write_config(self, extra=""):
        with open(self.path("arvion/arvion.conf"), "w") as f:
            f.write("SERVER = localhost\nSESSION_TOKEN_DIR = var/sessions\n" + extra)

    def close(self):
        if self.emulator.poll() is None:
            self.emulator.send_signal(signal.SIGTERM)
            try:
                self.emulator.wait(5)
            except subprocess.TimeoutExpired:
                self.emulator.kill()
                self.emulator.wait()
        self.emulator.stdout.close()
        self.emulator_err.close()
        shutil.rmtree(self.root, ignore_errors=True)

    def control_call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        req = urllib.request.Request("http://127.0.0.1:%d/%s" % (self.control, path),
                                     data=data, method=method)
        with urllib.request.urlopen(req, timeout=5) as r:
            return json.loads(r.read() or b"null")

    def requests(self, path=None):
        return [r for r in self.control_call("GET", "requests")
                if path is None or r["path"] == path]

    def env(self):
        env = {k: v for k, v in os.environ.items()
               if not k.startswith(("QXCURL_LOG", "ARVION_"))}
        env.update(ARVION_ROOT=self.root, HOME=self.path("home"))
        return env

    def run(self, *args, server=True, input=None):
        """Runs the tool; a leading command word stays first."""
        args = list(args)
        command = args[:1] if args and args[0] in ("login", "logout", "token", "tunnels") else []
        target = []
        if server:
            target = ["--server", "localhost", "--port", str(self.port)]
            if not command:
                target += ["--retry-window", "0"]
        return subprocess.run([TOOL] + command + target + args[len(command):],
                              input=input if input is not None else "", capture_output=True,
                              text=True, env=self.env(), timeout=60)


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

    def test_exit_status_follows_outcome(self):
        self.host.control_call("POST", "faults", {"path": "arvion/ping", "kind": "503",
                                                  "count": 1})
        cases = [
            # args, exit, stdout pattern, stderr pattern
            (("GET", "arvion/ping"), 0, r"^pong$", r"^$"),
            (("GET", "/arvion/ping"), 0, r"^pong$", r"^$"),  # a leading / is dropped
            (("GET", "arvion/nothing"), 1, r"8004", r"^HTTP 404\n$"),
            (("--token", LONG_TOKEN, "GET", "arvion/config/hosts"), 1, r"8001", r"^HTTP 401\n$"),
        ]
        # The 503 fault applies to the first ping only: run it first.
        r = self.host.run("GET", "arvion/ping")
        self.assertExit(r, 3)
        self.assertRegex(r.stderr, r"qxcurl: status \d+: .+\nHTTP 503\n")
        for args, code, out, err in cases:
            with self.subTest(args=args):
                r = self.host.run(*args)
                self.assertExit(r, code)
                self.assertRegex(r.stdout, out)
                self.assertRegex(r.stderr, err)

    def test_usage_errors(self):
        cases = [
            ((), True, r"expected METHOD and PATH"),
            (("FETCH", "arvion/ping"), True, r"unknown METHOD FETCH"),
            (("POST", "arvion/config/hosts"), True, r"POST needs --data"),
            (("--port", "x", "GET", "arvion/ping"), False, r"--port needs a number"),
            (("--cert", "a.pem", "GET", "arvion/ping"), True, r"--cert and --key go together"),
            (("--crl-level", "3", "GET", "arvion/ping"), True, r"--crl-level is 0, 1 or 2"),
            (("--ca-type", "qxca", "GET", "arvion/ping"), True, r"--ca-type is QXCA or ECA"),
            (("--crl", "/nonexistent.crl", "GET", "arvion/ping"), True, r"cannot read --crl"),
            (("--data", "@/nonexistent", "PUT", "x"), True, r"cannot read --data file"),
            (("--token", "t", "--user-session", "GET", "x"), True, r"exclude each other"),
            (("--user", "u", "GET", "arvion/ping"), True, r"--user does not apply to METHOD"),
            (("logout", "--new"), True, r"--new does not apply to logout"),
            (("login", "--user", "u"), True, r"login needs --domain-type"),
            (("token", "extra"), True, r"unexpected argument extra"),
            (("--tunnel", "t", "--no-tunnel", "GET", "x"), True, r"exclude each other"),
            # What the library refuses with status 20, from each command.
            (("--server", "", "GET", "arvion/ping"), False,
             r"--server is required\nqxcurl: status 20: "),
            (("--session", "bogus", "GET", "arvion/ping"), True,
             r"bad --session 'bogus'\nqxcurl: status 20: "),
            (("tunnels", "--server", ""), False, r"--server is required\nqxcurl: status 20: "),
            (("token", "--server", ""), False, r"--server is required\nqxcurl: status 20: "),
            (("login", "--server", "localhost", "--port", "0", "--user", "u"), False,
             r"--port must be 1 or more\nqxcurl: status 20: "),
        ]
        for args, server, err in cases:
            with self.subTest(args=args):
                r = self.host.run(*args, server=server)
                self.assertExit(r, 2)
                self.assertRegex(r.stderr, err)
                self.assertEqual("", r.stdout)
        self.assertEqual([], self.host.requests(), "a usage error reached the server")

    def test_tunnels(self):
        closed = socket.socket()
        closed.bind(("127.0.0.1", 0))
        dead_port = str(closed.getsockname()[1])
        closed.close()
        cache = self.host.path("arvion/websvctunnels.cache")
        if os.path.exists(cache):
            os.remove(cache)
        # Only the tunnel reaches the master: the direct attempt is refused, the
        # first tunnel is dead, the second works and is remembered.
        via = ("--port", dead_port, "--tunnel", DEAD_TUNNEL, "--tunnel", TUNNEL)
        r = self.host.run(*via, "-i", "--verbose", "GET", "arvion/ping")
        self.assertExit(r, 0)
        self.assertTrue(r.stdout.startswith("Tunnel: %s:1556\nHTTP/1.1 200 Connection" % TUNNEL))
        self.assertIn("qxcurl: tunnel %s:1556\n" % TUNNEL, r.stderr)
        self.assertIn("[%s:1556]" % DEAD_TUNNEL, r.stderr)
        with open(cache, "rb") as f:
            self.assertEqual(b"\r\nlocalhost = " + TUNNEL.encode(), f.read())
        self.assertEqual(TUNNEL + "\n", self.host.run("tunnels").stdout)
        # The next request takes the remembered tunnel first.
        r = self.host.run(*via, "--verbose", "GET", "arvion/ping")
        self.assertExit(r, 0)
        self.assertNotIn("[%s:1556]" % DEAD_TUNNEL, r.stderr)
        self.assertExit(self.host.run("tunnels", "--reset"), 0)
        self.assertEqual("", self.host.run("tunnels").stdout)

        # Tunnels only, by configuration; --no-tunnel goes direct all the same.
        self.host.write_config("WEB_SERVER_TUNNEL_USE = 1\nMEDIA_SERVER = %s\n" % TUNNEL)
        for args, tunnelled in ((), True), (("--no-tunnel",), False):
            with self.subTest(args=args):
                self.host.control_call("POST", "reset")
                r = self.host.run(*args, "-i", "GET", "arvion/ping")
                self.assertExit(r, 0)
                self.assertEqual(tunnelled, r.stdout.startswith("Tunnel: %s:1556\n" % TUNNEL))
                self.assertEqual(tunnelled, bool(self.host.requests("localhost:%d" % self.host.port)))
        os.remove(cache)

    def test_include_data_file_and_certificate_login(self):
        body = self.write("body.json", '{"hosts": ["h1",\n "h2"]}')
        r = self.host.run("--session", "token", "--include", "--data", "@" + body,
                          "PUT", "arvion/config/hosts")
        self.assertExit(r, 0)
        head, _, rest = r.stdout.partition("\n\n")  # text mode reads CR LF as LF
        self.assertRegex(head, r"^HTTP/1\.1 200")
        self.assertIn("X-Arvion-API-Version", head)
        echo = json.loads(rest)
        self.assertEqual({"hosts": ["h1", "h2"]}, echo["json"])
        self.assertEqual("machine", echo["tokenKind"])
        self.assertEqual(1, len(self.host.requests("arvion/loginwithcert")))
        put = self.host.requests("arvion/config/hosts")[-1]
        self.assertTrue(put["headers"]["Authorization"].startswith("eyJ"))

    def test_verbose_masks_credentials(self):
        r = self.host.run("--verbose", "--token", LONG_TOKEN, "GET", "arvion/config/hosts")
        self.assertIn("Authorization", r.stderr)
        self.assertNotIn(LONG_TOKEN, r.stderr)
        self.assertNotIn(LONG_TOKEN[4:-4], r.stderr)

    def test_verbose_traces_of_logins_show_no_token(self):
        # Every client traces (the login clients too), as a hostile reader of
        # the log would want.
        self.host.write_config("ENABLE_QXCURL_VERBOSE = yes\n")
        try:
            self.host.run("token", "--clear")
            r = self.host.run("--verbose", "--session", "token", "GET", "arvion/config/hosts")
            self.assertExit(r, 0)
            self.assertIn("Recv  data", r.stderr)  # the login answer was traced
            machine = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]
            pw = self.write("pw", PASSWORD + "\n")
            r2 = self.host.run("login", "--user", USER, "--domain-type", "unixpwd",
                               "--password-file", pw, "--verbose")
            self.assertExit(r2, 0)
            self.host.run("--user-session", "GET", "arvion/config/hosts")
            user = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]
            for token in (machine, user):
                for err in (r.stderr, r2.stderr):
                    self.assertNotIn(token[-24:], err)
        finally:
            self.host.write_config()
            self.host.run("logout")

    def test_name_mismatch_lists_certificate_names(self):
        self.host.control_call("POST", "config", {"certMode": "wrongname"})
        r = self.host.run("GET", "arvion/ping")
        self.assertExit(r, 3)
        self.assertIn("qxcurl: status 8509: ", r.stderr)
        self.assertRegex(r.stderr, r"certificate names: wrong1\.example, wrong2\.example\n")

    def test_revocation_switches(self):
        eca_args = ("--ca-type", "ECA", "GET", "arvion/ping")
        eca_bundle = os.path.join(self.host.pki, "eca/cacert.pem")
        self.host.control_call("POST", "config", {"certMode": "revoked"})
        cases = [
            (("--crl-level", "0"), 0, r"^$"),
            # Forgiving a failed check does not forgive a revocation.
            (("--allow-failed-crl",), 3, r"status 9318: "),
            # A CA bundle of the caller's keeps the request an ECA one: SNI
            # "ECA" and the revocation check.
            (("--cacert", eca_bundle), 3, r"status 9318: "),
            (("--cacert", eca_bundle, "--crl-level", "0"), 0, r"^$"),
        ]
        for args, code, err in cases:
            with self.subTest(args=args):
                self.host.control_call("POST", "reset")
                r = self.host.run(*args, *eca_args)
                self.assertExit(r, code)
                self.assertRegex(r.stderr, err)
                if code == 0:
                    self.assertEqual(["ECA"], [q["sni"] for q in self.host.requests()])

        # Without the certificate map's CRL, only --crl or a download can
        # supply one (the distribution point never answers: fault matrix).
        self.host.control_call("POST", "config", {"certMode": "normal"})
        certmap = self.host.path("var/certmap.json")
        with open(certmap) as f:
            original = f.read()
        mapping = json.loads(original)
        for entry in mapping["servers"].values():
            entry["ECA"]["crl"] = ""
        with open(certmap, "w") as f:
            json.dump(mapping, f)
        crl = os.path.join(self.host.pki, "eca/crl.pem")
        expired = os.path.join(self.host.pki, "eca/crl_expired.pem")
        cases = [
            (("--no-crl-download", "--allow-failed-crl"), 0, r"^$"),
            (("--no-crl-download", "--crl", crl), 0, r"^$"),
            (("--no-crl-download", "--crl", expired), 3, r"status 9314: "),
        ]
        try:
            for args, code, err in cases:
                with self.subTest(args=args):
                    r = self.host.run(*args, *eca_args)
                    self.assertExit(r, code)
                    self.assertRegex(r.stderr, err)
        finally:
            with open(certmap, "w") as f:
                f.write(original)

    def test_login_session_logout_round_trip(self):
        pw = self.write("pw", PASSWORD + "\r\n")
        self.host.write_config("ENABLE_QXCURL_VERBOSE = yes\n")
        r = self.host.run("login", "--user", USER, "--domain-type", "unixpwd",
                          "--password-file", pw, "--verbose")
        self.assertExit(r, 0)
        self.assertEqual("Logged in to localhost\n", r.stdout)
        self.assertIn('"password": "***"', r.stderr)  # the body was traced, masked
        self.assertNotIn(PASSWORD, r.stderr)
        sent = json.loads(self.host.requests("arvion/login")[-1]["body"])
        self.assertEqual(("localhost", USER), (sent["domainName"], sent["userName"]))  # defaults
        self.host.write_config()

        r = self.host.run("--user-session", "GET", "arvion/config/hosts")
        self.assertExit(r, 0)
        self.assertEqual("user", json.loads(r.stdout)["tokenKind"])
        session_token = self.host.requests("arvion/config/hosts")[-1]["headers"]["Authorization"]

        r = self.host.run("logout")
        self.assertExit(r, 0)
        self.assertEqual("Logged out of localhost\n", r.stdout)
        self.assertEqual(session_token,
                         self.host.requests("arvion/logout")[-1]["headers"]["Authorization"])
        r = self.host.run("--user-session", "GET", "arvion/config/hosts")
        self.assertExit(r, 3)
        self.assertIn("no user session", r.stderr)
        r = self.host.run("logout")
        self.assertExit(r, 0)
        self.assertEqual("Not logged in to localhost\n", r.stdout)

    def test_login_password_sources_and_refusal(self):
        cases = [
            # password file content, stdin, exit
            (None, PASSWORD + "\n", 0),
            (PASSWORD + "\nsecond line\n", None, 0),
            ("wrong\n", None, 3),
            ("\n", None, 2),
            (None, "", 2),
        ]
        for content, stdin, code in cases:
            with self.subTest(content=content, stdin=stdin):
                args = ["login", "--user", USER, "--domain-type", "unixpwd"]
                if content is not None:
                    args += ["--password-file", self.write("pw", content)]
                r = self.host.run(*args, input=stdin)
                self.assertExit(r, code)
                self.assertNotIn(PASSWORD, r.stdout + r.stderr)
                if code == 3:
                    self.assertRegex(r.stderr, r"login to localhost failed\nqxcurl: status \d+")

    def test_password_prompt_does_not_echo(self):
        pid, fd = pty.fork()
        if pid == 0:
            try:
                os.execve(TOOL, [TOOL, "login", "--server", "localhost", "--port",
                                 str(self.host.port), "--user", USER, "--domain-type",
                                 "unixpwd"], self.host.env())
            finally:
                os._exit(127)
        seen = b""
        deadline = time.time() + 20
        answered = False
        while time.time() < deadline:
            ready, _, _ = select.select([fd], [], [], 0.2)
            if not ready:
                continue
            try:
                chunk = os.read(fd, 4096)
            except OSError:  # the child closed the terminal
                break
            if not chunk:
                break
            seen += chunk
            if not answered and b"Password for " + USER.encode() in seen:
                os.write(fd, PASSWORD.encode() + b"\n")
                answered = True
        if not answered:
            os.kill(pid, signal.SIGKILL)
        _, status = os.waitpid(pid, 0)
        os.close(fd)
        self.assertEqual(0, os.waitstatus_to_exitcode(status), seen)
        self.assertIn(b"Logged in to localhost", seen)
        self.assertNotIn(PASSWORD.encode(), seen)

    def test_api_key_login_is_presented_as_session(self):
        key = "ak-" + "5c1f" * 6
        self.host.control_call("POST", "config", {"apiKeys": [key]})
        keyfile = self.write("keys", "other:nope\nLOCALHOST : %s\n" % key)
        r = self.host.run("login", "--api-key", "@" + keyfile)
        self.assertExit(r, 0)
        r = self.host.run("--user-session", "GET", "arvion/config/hosts")
        self.assertExit(r, 0)
        self.assertEqual(key, self.host.requests("arvion/config/hosts")[-1]["headers"]
                         ["Authorization"])
        r = self.host.run("login", "--api-key", "other:" + key)
        self.assertExit(r, 2)
        self.assertIn("no API key for localhost", r.stderr)
        self.assertNotIn(key, r.stderr)

    def test_token_command(self):
        r = self.host.run("token", "--new")
        self.assertExit(r, 0)
        m = re.match(r"token: (ey)\.\.\.(.)\nexpires: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ "
                     r"\(in (\d+) s\)\n$", r.stdout)
        self.assertIsNotNone(m, r.stdout)
        self.assertGreater(int(m.group(3)), 3000)

        r = self.host.run("token", "--show")
        self.assertExit(r, 0)
        token = r.stdout.splitlines()[0][len("token: "):]
        self.assertEqual(3, len(token.split(".")))
        self.assertTrue(token.endswith(m.group(2)))
        self.assertEqual(1, len(self.host.requests("arvion/loginwithcert")),
                         "a good cached token was not reused")

        token_files = [f for f in os.listdir(self.host.path("tmp")) if f.endswith("webtoken.dat")]
        self.assertEqual(["localhost.1.webtoken.dat"], token_files)
        r = self.host.run("token", "--clear")
        self.assertExit(r, 0)
        self.assertEqual("Token cleared for localhost\n", r.stdout)
        with open(self.host.path("tmp", token_files[0])) as f:
            self.assertEqual("xxxx", f.readline().strip())


if __name__ == "__main__":
    unittest.main(verbosity=2)
