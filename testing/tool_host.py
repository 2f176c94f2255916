"""The command-line tool's test host: a throw-away install root (ARVION_ROOT)
with the shared test PKI, the emulated master server on loopback, and a way
to run the real binary against them. Used by tests/tool_test.py and
tests/valgrind_test.py."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import urllib.request

SOURCE_DIR = os.environ.get("QXCURL_SOURCE_DIR",
                            os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BINARY_DIR = os.environ.get("QXCURL_BINARY_DIR", os.path.join(SOURCE_DIR, "build"))
TOOL = os.path.join(BINARY_DIR, "qxcurl")
# A user of the emulator, with a password nothing else in a log could contain.
USER, PASSWORD = "alice", "Pw-7f3a9c-never-logged"


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
        with open(self.path("var/emulator.err"), "w") as err:
            self.emulator = subprocess.Popen(
                [sys.executable, os.path.join(SOURCE_DIR, "testing/emulator/emulator.py"),
                 "--pki", self.pki, "--users", users, "--log", self.path("var/emulator.log")]
                + (["--tunnel", tunnel] if tunnel else []),
                stdout=subprocess.PIPE, stderr=err, text=True)
        m = re.match(r"READY port=(\d+) control=(\d+)", self.emulator.stdout.readline())
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
        self.emulator.terminate()
        try:
            self.emulator.wait(5)
        except subprocess.TimeoutExpired:
            self.emulator.kill()
        self.emulator.stdout.close()
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
        commands = ("login", "logout", "token", "tunnels", "cache")
        command = list(args[:1]) if args and args[0] in commands else []
        target = ["--server", "localhost", "--port", str(self.port)] if server else []
        if server and not command:
            target += ["--retry-window", "0"]
        return subprocess.run([TOOL] + command + target + list(args[len(command):]),
                              input=input if input is not None else "", capture_output=True,
                              text=True, env=self.env(), timeout=60)
