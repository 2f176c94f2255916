#!/usr/bin/env python3
"""Checks of the emulated master server that every integration test relies on."""

import base64
import http.client
import json
import os
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE_DIR = os.environ.get(
    "QXCURL_SOURCE_DIR", os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
)
EMULATOR = os.path.join(SOURCE_DIR, "testing", "emulator", "emulator.py")
GEN_PKI = os.path.join(SOURCE_DIR, "testing", "pki", "gen_pki.py")
# Loopback address of this suite's tunnel listener; other suites use other ones.
TUNNEL_ADDRESS = "127.0.0.211"

PKI = None
TMP = None


def setUpModule():
    global PKI, TMP
    TMP = tempfile.mkdtemp(prefix="emulator-test-")
    PKI = os.path.join(TMP, "pki")
    subprocess.run([sys.executable, GEN_PKI, PKI], check=True, stdout=subprocess.DEVNULL, timeout=60)


def tearDownModule():
    shutil.rmtree(TMP, ignore_errors=True)


def pki(rel):
    return os.path.join(PKI, rel)


def first_der(rel):
    with open(pki(rel), encoding="ascii") as f:
        text = f.read()
    end = text.index("-----END CERTIFICATE-----") + len("-----END CERTIFICATE-----")
    return ssl.PEM_cert_to_DER_cert(text[text.index("-----BEGIN CERTIFICATE-----") : end])


def client_context(cert=None, verify=True, version=None):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    if verify:
        ctx.load_verify_locations(pki("qxca/ca.pem"))
        ctx.load_verify_locations(pki("eca/root.pem"))
    else:
        ctx.verify_mode = ssl.CERT_NONE
    if version:
        ctx.minimum_version = ctx.maximum_version = version
    if cert == "qxca":
        ctx.load_cert_chain(pki("qxca/host.pem"), pki("qxca/host.key"))
    elif cert == "eca":
        with open(pki("eca/passphrase"), encoding="ascii") as f:
            ctx.load_cert_chain(pki("eca/host.pem"), pki("eca/host.key"), f.read().strip())
    return ctx


class Connection(http.client.HTTPSConnection):
    """HTTPS to 127.0.0.1 with a chosen SNI (None sends none)."""

    def __init__(self, port, sni="localhost", context=None, timeout=10):
        super().__init__("127.0.0.1", port, context=context or client_context(), timeout=timeout)
        self.sni = sni

    def connect(self):
        raw = socket.create_connection((self.host, self.port), self.timeout)
        raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sock = self._context.wrap_socket(raw, server_hostname=self.sni)


class Emulator:
    def __init__(self, *extra):
        self.proc = subprocess.Popen(
            [sys.executable, EMULATOR, "--pki", PKI, *extra],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline() if ready else ""
        if not line.startswith("READY "):
            self.proc.kill()
            raise RuntimeError("emulator did not start: %r %s" % (line, self.proc.stderr.read()))
        fields = dict(f.split("=") for f in line.split()[1:])
        self.port, self.control = int(fields["port"]), int(fields["control"])

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        try:
            out, err = self.proc.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            out, err = self.proc.communicate()
        return self.proc.returncode, out, err

    def ctl(self, method, path, doc=None):
        conn = http.client.HTTPConnection("127.0.0.1", self.control, timeout=10)
        body = None if doc is None else (doc if isinstance(doc, bytes) else json.dumps(doc))
        conn.request(method, path, body=body)
        resp = conn.getresponse()
        status, data = resp.status, json.loads(resp.read() or b"null")
        conn.close()
        return status, data

    def requests(self):
        return self.ctl("GET", "/requests")[1]

    def call(self, method, path, body=None, headers=None, sni="localhost", cert=None):
        conn = Connection(self.port, sni, client_context(cert))
        try:
            conn.request(method, "/" + path, body=body, headers=headers or {})
            resp = conn.getresponse()
            data = resp.read()
        finally:
            conn.close()
        try:
            doc = json.loads(data)
        except ValueError:
            doc = None
        return resp.status, resp, doc if doc is not None else data

    def token(self, cert="qxca"):
        status, _, doc = self.call("POST", "arvion/loginwithcert", "{}", cert=cert)
        assert status == 200, doc
        return doc["token"]


class EmulatorCase(unittest.TestCase):
    extra_args = ()

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator(*cls.extra_args)

    @classmethod
    def tearDownClass(cls):
        cls.emu.stop()

    def setUp(self):
        self.emu.ctl("POST", "/reset")
        self.emu.ctl("POST", "/config", {"apiVersion": "6.0", "certMode": "normal", "tokenLifetime": 3600})


class TlsTest(EmulatorCase):
    def peer_cert(self, sni, verify=True, version=None, cert=None):
        raw = socket.create_connection(("127.0.0.1", self.emu.port), 5)
        with client_context(cert, verify, version).wrap_socket(raw, server_hostname=sni) as tls:
            return tls.getpeercert(binary_form=True), tls.version()

    def test_leaf_follows_sni_on_both_tls_versions(self):
        cases = [(None, "qxca/server.pem"), ("QXCA", "qxca/server.pem"),
                 ("localhost", "qxca/server.pem"), ("ECA", "eca/server.pem")]
        for version, name in ((ssl.TLSVersion.TLSv1_2, "TLSv1.2"), (ssl.TLSVersion.TLSv1_3, "TLSv1.3")):
            for sni, leaf in cases:
                with self.subTest(sni=sni, version=name):
                    der, negotiated = self.peer_cert(sni, version=version)
                    self.assertEqual(negotiated, name)
                    self.assertEqual(der, first_der(leaf))

    def test_cert_mode_changes_the_leaf_of_the_same_ca(self):
        cases = [("wrongname", None, "qxca/wrongname.pem"), ("wrongname", "ECA", "eca/wrongname.pem"),
                 ("expired", None, "qxca/expired.pem"), ("expired", "ECA", "eca/expired.pem"),
                 ("revoked", None, "qxca/server.pem"), ("revoked", "ECA", "eca/revoked.pem")]
        for mode, sni, leaf in cases:
            with self.subTest(mode=mode, sni=sni):
                self.assertEqual(self.emu.ctl("POST", "/config", {"certMode": mode})[0], 200)
                self.assertEqual(self.peer_cert(sni, verify=False)[0], first_der(leaf))

class HttpTest(EmulatorCase):
    extra_args = ("--cache-validity", "arvion/config/hosts=120")

    def test_media_type_versions(self):
        vendor = "application/vnd.arvion+json;version="
        cases = [
            # server version, Accept, Content-Type, body, expected status
            ("6.0", vendor + "6.0", vendor + "6.0", "{}", 200),
            ("6.0", vendor + "5.0", None, None, 200),
            ("6.0", vendor + "7.0", None, None, 406),
            ("10.0", vendor + "6.0", None, None, 200),
            ("6.0", vendor + "junk", None, None, 406),
            ("6.0", vendor + "7.0, */*", None, None, 200),
            ("6.0", "application/json", None, None, 200),
            ("6.0", "*/*", vendor + "7.0", "{}", 415),
            ("6.0", "*/*", vendor + "7.0", None, 200),
            (None, vendor + "5.0", None, None, 406),
            (None, "application/json", "application/json", "{}", 200),
        ]
        token = self.emu.token()
        for server, accept, ctype, body, expected in cases:
            with self.subTest(server=server, accept=accept, ctype=ctype, body=body):
                self.emu.ctl("POST", "/config", {"apiVersion": server})
                headers = {"Authorization": token, "Accept": accept}
                if ctype:
                    headers["Content-Type"] = ctype
                status, _, doc = self.emu.call("POST", "arvion/config/hosts", body, headers)
                self.assertEqual(status, expected, doc)
                if expected != 200:
                    self.assertIsInstance(doc["errorCode"], int)

    def test_target_master_and_cache_validity_headers(self):
        with open(pki("certmap.json"), encoding="utf-8") as f:
            uuid = json.load(f)["servers"]["localhost"]["hostUuid"]
        token = self.emu.token()
        for path, validity in (("arvion/config/hosts", "120"), ("arvion/catalog/frontenddata", None),
                               ("no/such/path", None)):
            with self.subTest(path=path):
                _, resp, _ = self.emu.call("GET", path, headers={"Authorization": token})
                self.assertEqual(resp.getheader("X-Target-Master"), "localhost")
                self.assertEqual(resp.getheader("X-Target-Master-ID"), uuid)
                self.assertEqual(resp.getheader("X-Cache-Validity"), validity)

    def test_keep_alive_serves_several_requests_per_connection(self):
        conn = Connection(self.emu.port)
        for _ in range(3):
            conn.request("GET", "/arvion/ping")
            self.assertEqual(conn.getresponse().read(), b"pong\n")
        conn.close()
        self.assertEqual(len({r["connection"] for r in self.emu.requests()}), 1)

    def test_malformed_requests_get_400(self):
        cases = [
            (b"GARBAGE\r\n\r\n", 400),
            (b"GET arvion/ping HTTP/1.1\r\n\r\n", 400),
            (b"GET /arvion/ping HTTP/9.9\r\n\r\n", 400),
            (b"GET /arvion/ping HTTP/1.1\r\nNoColonHere\r\n\r\n", 400),
            (b"POST /arvion/login HTTP/1.1\r\nContent-Length: abc\r\n\r\n", 400),
            (b"POST /arvion/login HTTP/1.1\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\n{}", 400),
            (b"POST /arvion/login HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", 400),
            (b"GET /arvion/ping HTTP/1.1\r\n" + b"X-Big: " + b"a" * 8000 + b"\r\n" * 1 +
             (b"X-More: " + b"b" * 7000 + b"\r\n") * 10 + b"\r\n", 400),
            (b"GET /no/such/path HTTP/1.1\r\nHost: x\r\n\r\n", 404),
            (b"DELETE /arvion/ping HTTP/1.1\r\nHost: x\r\n\r\n", 405),
            (b"POST /arvion/login HTTP/1.1\r\nContent-Length: 5\r\n\r\nnope!", 400),
        ]
        for raw, expected in cases:
            with self.subTest(raw=raw[:40]):
                sock = socket.create_connection(("127.0.0.1", self.emu.port), 5)
                with client_context().wrap_socket(sock, server_hostname="localhost") as tls:
                    tls.sendall(raw)
                    resp = http.client.HTTPResponse(tls)
                    resp.begin()
                    doc = json.loads(resp.read())
                    self.assertEqual(resp.status, expected)
                    self.assertIn("errorCode", doc)
        # The server survives all of it.
        self.assertEqual(self.emu.call("GET", "arvion/ping")[0], 200)


class AuthTest(EmulatorCase):
    def test_protected_resource_authorization(self):
        self.emu.ctl("POST", "/config", {"apiKeys": ["key-123"]})
        token = self.emu.token()
        head, payload, sig = token.split(".")
        forged = head + "." + payload[:-2] + ("AA" if payload[-2:] != "AA" else "BB") + "." + sig
        cases = [
            (token, 200), ("Bearer " + token, 200), ("bearer  " + token, 200), ("key-123", 200),
            (None, 401), ("", 401), ("Bearer", 401), ("garbage", 401), ("a.b.c", 401),
            (forged, 401), (head + "." + payload + ".", 401), ("key-12", 401),
        ]
        for value, expected in cases:
            with self.subTest(authorization=value):
                headers = {} if value is None else {"Authorization": value}
                for method in ("GET", "POST", "PUT", "PATCH", "DELETE"):
                    status, _, doc = self.emu.call(method, "arvion/catalog/frontenddata", "{}", headers)
                    self.assertEqual(status, expected, (method, doc))
                    if expected == 401:
                        self.assertNotEqual(doc["errorCode"], 117)
                    else:
                        self.assertEqual(doc["method"], method)

    def test_expired_tokens_get_117(self):
        def check(token):
            got, _, doc = self.emu.call("GET", "arvion/config/hosts", headers={"Authorization": token})
            return got, doc.get("errorCode")

        old = self.emu.token()
        self.emu.ctl("POST", "/config", {"tokenLifetime": 0})
        short = self.emu.token()
        self.emu.ctl("POST", "/config", {"tokenLifetime": 3600})
        self.assertEqual((check(old)[0], check(short)), (200, (401, 117)))
        self.assertEqual(self.emu.ctl("POST", "/expire-tokens")[0], 200)
        fresh = self.emu.token()
        self.assertEqual((check(old), check(fresh)[0]), ((401, 117), 200))

class FaultTest(EmulatorCase):
    def fault(self, **fields):
        self.assertEqual(self.emu.ctl("POST", "/faults", fields)[0], 200)

    def test_scripted_answers_then_normal_service(self):
        cases = [
            ({"kind": "503"}, 503, {"errorCode": 8003}),
            ({"kind": "503", "body": {"errorCode": 9001, "errorMessage": "busy"}}, 503,
             {"errorCode": 9001, "errorMessage": "busy"}),
            ({"kind": "502"}, 502, {}),
            ({"kind": "status", "status": 418, "body": {"x": 1}}, 418, {"x": 1}),
            ({"kind": "status", "status": 401, "body": {"errorCode": 117, "errorMessage": "e"}}, 401,
             {"errorCode": 117}),
            ({"kind": "notjson"}, 200, None),
        ]
        for fault, status, members in cases:
            with self.subTest(fault=fault):
                self.fault(path="arvion/ping", **fault)
                got, _, doc = self.emu.call("GET", "arvion/ping")
                self.assertEqual(got, status)
                if members is None:
                    self.assertIsInstance(doc, bytes)
                    self.assertRaises(ValueError, json.loads, doc)
                for key, value in (members or {}).items():
                    self.assertEqual(doc[key], value)
                self.assertEqual(self.emu.call("GET", "arvion/ping")[0], 200)

    def test_count_path_and_wildcard(self):
        self.fault(path="/arvion/ping", kind="503", count=2)
        self.fault(path="*", kind="502", count=1)
        paths = ["arvion/security/cacert"] + ["arvion/ping"] * 3 + ["arvion/security/cacert"]
        seen = [self.emu.call("GET", p)[0] for p in paths]
        self.assertEqual(seen, [502, 503, 503, 200, 200])
        self.fault(path="arvion/ping", kind="503", count=-1)
        self.assertEqual([self.emu.call("GET", "arvion/ping")[0] for _ in range(3)], [503] * 3)
        self.emu.ctl("POST", "/reset")
        self.assertEqual(self.emu.call("GET", "arvion/ping")[0], 200)

    def test_drop_and_close_end_the_connection(self):
        for kind in ("drop", "close"):
            with self.subTest(kind=kind):
                self.fault(path="arvion/ping", kind=kind)
                with self.assertRaises((http.client.IncompleteRead, http.client.RemoteDisconnected)):
                    self.emu.call("GET", "arvion/ping")
                self.assertEqual(self.emu.call("GET", "arvion/ping")[0], 200)

    def test_control_rejects_bad_input(self):
        cases = [
            ("/faults", {"kind": "explode"}), ("/faults", {"kind": "503", "count": "2"}),
            ("/faults", {"kind": "delay", "seconds": -1}), ("/faults", {"kind": "status", "status": 99}),
            ("/faults", [1]), ("/faults", b"{not json"), ("/config", {"certMode": "bogus"}),
            ("/config", {"apiVersion": "six"}), ("/config", {"tokenLifetime": "1"}),
            ("/config", {"renewRequired": True}), ("/config", {"noSuchKey": 1}), ("/config", [1]),
        ]
        for path, doc in cases:
            with self.subTest(path=path, doc=doc):
                self.assertEqual(self.emu.ctl("POST", path, doc)[0], 400)
        self.assertEqual(self.emu.ctl("GET", "/config")[1]["certMode"], "normal")
        self.assertEqual(self.emu.ctl("GET", "/faults")[1], [])


class TunnelTest(EmulatorCase):
    extra_args = ("--tunnel", TUNNEL_ADDRESS)

    def connect_via_tunnel(self, target):
        sock = socket.create_connection((TUNNEL_ADDRESS, 1556), 5)
        sock.sendall(("CONNECT %s HTTP/1.1\r\nHost: %s\r\n\r\n" % (target, target)).encode())
        resp = http.client.HTTPResponse(sock, method="CONNECT")
        resp.begin()
        return sock, resp.status

    def test_connect_relays_tls_and_marks_requests(self):
        sock, status = self.connect_via_tunnel("localhost:%d" % self.emu.port)
        self.assertEqual(status, 200)
        with client_context().wrap_socket(sock, server_hostname="QXCA") as tls:
            for _ in range(2):  # keep-alive through the tunnel
                tls.sendall(b"GET /arvion/ping HTTP/1.1\r\nHost: localhost\r\n\r\n")
                resp = http.client.HTTPResponse(tls)
                resp.begin()
                self.assertEqual((resp.status, resp.read()), (200, b"pong\n"))
        self.emu.call("GET", "arvion/ping")
        records = self.emu.requests()
        self.assertEqual([(r["method"], r["tunnel"]) for r in records],
                         [("CONNECT", True), ("GET", True), ("GET", True), ("GET", False)])
        self.assertEqual(records[0]["path"], "localhost:%d" % self.emu.port)
        self.assertEqual(records[1]["tunnelAddress"], TUNNEL_ADDRESS)

    def test_refusals(self):
        closed = socket.socket()
        closed.bind(("127.0.0.1", 0))
        refused_port = closed.getsockname()[1]
        closed.close()
        cases = [("127.0.0.1:%d" % refused_port, None, 502), ("no-port-here", None, 400),
                 ("localhost:%d" % self.emu.port, {"kind": "503"}, 503),
                 ("localhost:%d" % self.emu.port, {"kind": "status", "status": 403}, 403)]
        for target, fault, expected in cases:
            with self.subTest(target=target, fault=fault):
                if fault:
                    self.emu.ctl("POST", "/faults", dict(fault, path="CONNECT"))
                sock, status = self.connect_via_tunnel(target)
                sock.close()
                self.assertEqual(status, expected)
        self.assertEqual(self.emu.requests()[0]["method"], "CONNECT")


class TunnelModeTest(EmulatorCase):
    # This suite's share of the tunnel tests' loopback range.
    MODES = {"127.0.2.231": "", "127.0.2.232": ",mode=refuse,status=407",
             "127.0.2.233": ",mode=drop", "127.0.2.234": ",mode=down,master=other,master-id="}
    extra_args = tuple(a for addr, opts in MODES.items() for a in ("--tunnel", addr + opts))

    def connect(self, address):
        sock = socket.create_connection((address, 1556), 5)
        target = "localhost:%d" % self.emu.port
        sock.sendall(("CONNECT %s HTTP/1.1\r\nHost: %s\r\n\r\n" % (target, target)).encode())
        return sock

    def test_each_tunnel_keeps_its_behaviour_and_names_its_master(self):
        uuid = self.emu.ctl("GET", "/config")[1]["targetMasterId"]
        cases = [("127.0.2.231", 200, "localhost", uuid), ("127.0.2.232", 407, "localhost", uuid),
                 ("127.0.2.233", None, None, None), ("127.0.2.234", 200, "other", None)]
        for address, status, master, master_id in cases:
            with self.subTest(address=address):
                with self.connect(address) as sock:
                    if status is None:
                        self.assertEqual(sock.recv(100), b"")
                        continue
                    resp = http.client.HTTPResponse(sock, method="CONNECT")
                    resp.begin()
                    self.assertEqual((resp.status, resp.getheader("X-Target-Master"),
                                      resp.getheader("X-Target-Master-ID")),
                                     (status, master, master_id))
                    if address == "127.0.2.234":  # opened, then nothing behind it
                        self.assertEqual(sock.recv(100), b"")


class LifecycleTest(unittest.TestCase):
    def test_sigterm_exits_cleanly_with_only_the_ready_line(self):
        emu = Emulator("--log", os.path.join(TMP, "emu.log"))
        self.assertEqual(emu.call("GET", "arvion/ping")[0], 200)
        # An idle keep-alive connection must not hold the exit back.
        idle = Connection(emu.port)
        idle.request("GET", "/arvion/ping")
        idle.getresponse().read()
        start = time.monotonic()
        code, out, err = emu.stop()
        idle.close()
        self.assertEqual((code, out, err), (0, "", ""))
        self.assertLess(time.monotonic() - start, 3)


if __name__ == "__main__":
    unittest.main()
