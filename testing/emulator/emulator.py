#!/usr/bin/env python3
"""Emulated master server for qxcurl's tests and demo.

Plays the product's web service on loopback over real TLS, with a plain-HTTP
control port through which a test scripts faults, changes the configuration
and reads back every request the server saw. Optionally also runs CONNECT
tunnels on <address>:1556. Standard library only.

Start it by hand with:
    python3 emulator.py --pki /path/to/pki
It prints one line, "READY port=<tls port> control=<control port>", and runs
until SIGTERM or SIGINT. See README.md next to this file.
"""

import argparse
import base64
import hashlib
import hmac
import json
import logging
import os
import selectors
import shutil
import signal
import socket
import socketserver
import ssl
import struct
import sys
import tempfile
import threading
import time
import uuid
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

LOG = logging.getLogger("emulator")

DEFAULT_HOST_UUID = "5f0c7d2e-8a41-4b7e-9c36-1d2e3f4a5b6c"
DEFAULT_SERVER_NAME = "localhost"
TUNNEL_PORT = 1556

# Product error codes carried in {"errorCode", "errorMessage"} bodies. 117 is the
# one the client acts on (expired token); the others only need to be distinct.
ERR_TOKEN_EXPIRED = 117
ERR_UNAUTHORIZED = 8001
ERR_LOGIN_REFUSED = 8002
ERR_UNAVAILABLE = 8003
ERR_NOT_FOUND = 8004
ERR_BAD_REQUEST = 8005
ERR_NOT_ACCEPTABLE = 8006
ERR_UNSUPPORTED_MEDIA = 8007
ERR_METHOD = 8008
ERR_BAD_GATEWAY = 8009

# Limits that make a request "malformed" (400).
MAX_LINE = 8192
MAX_HEADER_BYTES = 65536
MAX_HEADERS = 200
MAX_BODY = 64 * 1024 * 1024

HANDSHAKE_TIMEOUT = 10.0
IDLE_TIMEOUT = 30.0
TUNNEL_IDLE_TIMEOUT = 300.0

CERT_MODES = ("normal", "wrongname", "expired", "revoked")
FAULT_KINDS = (
    "503",
    "502",
    "delay",
    "drop",
    "notjson",
    "status",
    "close",
    "reset",
    "reset-body",
    "stall",
    "stall-body",
    "raw",
    "big-headers",
    "big-body",
    "alert",
)
# Fault paths that are not request paths: the proxy request and the TLS
# handshake of a new connection. "*" matches neither.
SPECIAL_FAULT_PATHS = ("CONNECT", "TLS")
# A fatal TLS alert record: handshake_failure (40).
TLS_ALERT_HANDSHAKE_FAILURE = b"\x15\x03\x03\x00\x02\x02\x28"
VENDOR_TYPES = ("application/vnd.arvion+json", "application/vnd.arvion+octet-stream")
PLAIN_ACCEPTABLE = (
    "*/*",
    "application/*",
    "application/json",
    "application/octet-stream",
    "text/*",
    "text/plain",
)

PING = "arvion/ping"
CACERT = "arvion/security/cacert"
LOGIN_WITH_CERT = "arvion/loginwithcert"
LOGIN = "arvion/login"
LOGOUT = "arvion/logout"
APPLIANCE_LOGIN = "appliance/authservice/api/v1/auth/login"
# Resources that need a token and simply echo what they were sent.
PROTECTED = frozenset(
    {
        "arvion/config/hosts",
        "arvion/catalog/frontenddata",
        "arvion/security/credentials",
        "arvion/security/passphrase-constraints",
        "arvion/config/hosts-pending-renewal",
        "arvion/security/certificate-authorities",
        "arvion/security/certificate-authorities/initiate-migration",
        "arvion/security/certificate-authorities/activate",
        "arvion/security/certificate-authorities/migration-complete",
        "arvion/security/certificate-authorities/migration-summary",
        "arvion/security/certificate-authorities/hosts-pending-trust-propagation",
        "arvion/security/certificate-authorities/sync-migration-db",
        "arvion/upload",
    }
)

REASONS = {
    100: "Continue",
    200: "OK",
    201: "Created",
    204: "No Content",
    400: "Bad Request",
    401: "Unauthorized",
    403: "Forbidden",
    404: "Not Found",
    405: "Method Not Allowed",
    406: "Not Acceptable",
    407: "Proxy Authentication Required",
    413: "Payload Too Large",
    415: "Unsupported Media Type",
    500: "Internal Server Error",
    502: "Bad Gateway",
    503: "Service Unavailable",
    504: "Gateway Timeout",
}

SHORT_RDN = {
    "commonName": "CN",
    "organizationName": "O",
    "organizationalUnitName": "OU",
    "countryName": "C",
    "localityName": "L",
    "stateOrProvinceName": "ST",
    "emailAddress": "emailAddress",
}


class HttpError(Exception):
    """A request the server refuses; becomes an error body."""

    def __init__(self, status, code, message, close=False):
        super().__init__(message)
        self.status = status
        self.code = code
        self.message = message
        self.close = close


class ConfigError(Exception):
    pass


def error_body(code, message):
    return {"errorCode": code, "errorMessage": message}


def parse_version(text):
    """"6.0" -> (6, 0); anything that is not dotted decimal numbers -> None."""
    if not isinstance(text, str) or not text:
        return None
    parts = text.strip().split(".")
    if not all(p.isdigit() for p in parts):
        return None
    return tuple(int(p) for p in parts)


def parse_media_list(value):
    """Header value -> [(type, {param: value})], types and names lower-cased."""
    out = []
    for part in value.split(","):
        fields = [f.strip() for f in part.split(";")]
        if not fields[0]:
            continue
        params = {}
        for field in fields[1:]:
            if "=" in field:
                name, val = field.split("=", 1)
                params[name.strip().lower()] = val.strip().strip('"')
        out.append((fields[0].lower(), params))
    return out


def vendor_version_ok(params, server_version):
    if "version" not in params:
        return True
    wanted = parse_version(params["version"])
    # A server without a version header predates versioned media types.
    return wanted is not None and server_version is not None and wanted <= server_version


def b64url(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=").decode("ascii")


def b64url_decode(text):
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


def format_subject(cert):
    if not cert or "subject" not in cert:
        return None
    parts = []
    for rdn in cert["subject"]:
        for name, value in rdn:
            parts.append("%s=%s" % (SHORT_RDN.get(name, name), value))
    return ", ".join(parts)


def read_host_uuid(pki, server_name):
    path = os.path.join(pki, "certmap.json")
    try:
        with open(path, encoding="utf-8") as f:
            servers = json.load(f).get("servers", {})
        for name, entry in servers.items():
            if name.lower() == server_name.lower() and isinstance(entry.get("hostUuid"), str):
                return entry["hostUuid"]
    except (OSError, ValueError, AttributeError):
        pass
    return DEFAULT_HOST_UUID


class State:
    """Everything the control port can read or change; one lock guards it all."""

    def __init__(self, args):
        self.lock = threading.RLock()
        self.api_version = None if args.api_version == "none" else args.api_version
        self.cert_mode = args.cert_mode
        self.session_tickets = args.session_tickets
        self.token_lifetime = args.token_lifetime
        self.cache_validity = dict(args.cache_validity)
        self.users = dict(args.users)
        self.api_keys = set(args.apikey)
        self.trust_version = "1"
        self.renew_required = 0
        self.target_master = args.target_master
        self.target_master_id = args.target_master_id
        self.records = []
        self.faults = []
        self.tokens = {}  # jti -> {"sub", "kind", "exp", "expired", "revoked"}
        self.secret = os.urandom(32)
        self.tunnel_peers = {}  # (ip, port) of relayed upstream sockets -> tunnel address
        self.connection_seq = 0

    # ---- configuration
    def snapshot(self):
        with self.lock:
            return {
                "apiVersion": self.api_version,
                "certMode": self.cert_mode,
                "tokenLifetime": self.token_lifetime,
                "cacheValidity": dict(self.cache_validity),
                "trustVersion": self.trust_version,
                "renewRequired": self.renew_required,
                "apiKeys": sorted(self.api_keys),
                "users": sorted(self.users),
                "targetMaster": self.target_master,
                "targetMasterId": self.target_master_id,
            }

    def configure(self, change):
        if not isinstance(change, dict):
            raise ConfigError("configuration must be a JSON object")
        checks = {
            "apiVersion": lambda v: v is None or parse_version(v) is not None,
            "certMode": lambda v: v in CERT_MODES,
            "tokenLifetime": lambda v: isinstance(v, int) and not isinstance(v, bool),
            "cacheValidity": lambda v: isinstance(v, dict),
            "trustVersion": lambda v: isinstance(v, str),
            "renewRequired": lambda v: isinstance(v, int) and not isinstance(v, bool),
            "apiKeys": lambda v: isinstance(v, list) and all(isinstance(k, str) for k in v),
            "users": lambda v: isinstance(v, dict),
            "targetMaster": lambda v: v is None or isinstance(v, str),
            "targetMasterId": lambda v: v is None or isinstance(v, str),
        }
        for key, value in change.items():
            if key not in checks:
                raise ConfigError("unknown configuration member %r" % key)
            if not checks[key](value):
                raise ConfigError("bad value for %r" % key)
        with self.lock:
            for key, value in change.items():
                if key == "apiVersion":
                    self.api_version = value
                elif key == "certMode":
                    self.cert_mode = value
                elif key == "tokenLifetime":
                    self.token_lifetime = value
                elif key == "cacheValidity":
                    for path, ttl in value.items():
                        if ttl is None:
                            self.cache_validity.pop(path.lstrip("/"), None)
                        else:
                            self.cache_validity[path.lstrip("/")] = str(ttl)
                elif key == "trustVersion":
                    self.trust_version = value
                elif key == "renewRequired":
                    self.renew_required = value
                elif key == "apiKeys":
                    self.api_keys = set(value)
                elif key == "users":
                    self.users = dict(value)
                elif key == "targetMaster":
                    self.target_master = value
                elif key == "targetMasterId":
                    self.target_master_id = value

    # ---- records
    def record(self, entry):
        with self.lock:
            self.records.append(entry)

    def next_connection(self):
        with self.lock:
            self.connection_seq += 1
            return self.connection_seq

    # ---- faults
    def add_faults(self, faults):
        items = faults if isinstance(faults, list) else [faults]
        parsed = []
        for item in items:
            if not isinstance(item, dict):
                raise ConfigError("a fault must be a JSON object")
            kind = str(item.get("kind", ""))
            if kind not in FAULT_KINDS:
                raise ConfigError("unknown fault kind %r" % kind)
            path = item.get("path", "*")
            count = item.get("count", 1)
            seconds = item.get("seconds", 0)
            status = item.get("status", 500)
            size = item.get("size", 0)
            headers = item.get("headers", {})
            if not isinstance(path, str) or not isinstance(count, int) or isinstance(count, bool):
                raise ConfigError("fault needs a string path and an integer count")
            if not isinstance(size, int) or isinstance(size, bool) or not 0 <= size <= 1 << 34:
                raise ConfigError("fault size must be an integer from 0 to 2^34")
            if not isinstance(headers, dict) or not all(
                isinstance(k, str) and isinstance(v, str) for k, v in headers.items()
            ):
                raise ConfigError("fault headers must be an object of strings")
            if not isinstance(seconds, (int, float)) or seconds < 0 or seconds > 3600:
                raise ConfigError("fault seconds must be a number from 0 to 3600")
            if not isinstance(status, int) or not 100 <= status <= 599:
                raise ConfigError("fault status must be an integer from 100 to 599")
            parsed.append(
                {
                    "path": path if path in ("*",) + SPECIAL_FAULT_PATHS else path.lstrip("/"),
                    "kind": kind,
                    "count": count,
                    "seconds": seconds,
                    "status": status,
                    "body": item.get("body"),
                    "size": size,
                    "headers": headers,
                    "chunked": bool(item.get("chunked", False)),
                    "lineSize": max(16, int(item.get("lineSize", 1000) or 1000)),
                }
            )
        with self.lock:
            self.faults.extend(parsed)

    def take_fault(self, path):
        """The first armed fault for path ("*" matches any request path)."""
        with self.lock:
            for fault in self.faults:
                if fault["count"] == 0:
                    continue
                if fault["path"] == path or (fault["path"] == "*" and path not in SPECIAL_FAULT_PATHS):
                    if fault["count"] > 0:
                        fault["count"] -= 1
                    return dict(fault)
        return None

    def reset(self):
        with self.lock:
            self.records = []
            self.faults = []

    # ---- tokens
    def issue_token(self, subject, kind):
        now = int(time.time())
        with self.lock:
            lifetime = self.token_lifetime
            jti = uuid.uuid4().hex
            payload = {
                "sub": subject,
                "iat": now,
                "exp": now + lifetime,
                "jti": jti,
                "iss": "qxemu",
                "kind": kind,
            }
            header = b64url(json.dumps({"alg": "HS256", "typ": "JWT"}, separators=(",", ":")).encode())
            body = b64url(json.dumps(payload, separators=(",", ":")).encode())
            signing_input = (header + "." + body).encode("ascii")
            sig = b64url(hmac.new(self.secret, signing_input, hashlib.sha256).digest())
            self.tokens[jti] = {
                "sub": subject,
                "kind": kind,
                "exp": now + lifetime,
                "expired": False,
                "revoked": False,
            }
        return header + "." + body + "." + sig, lifetime

    def check_token(self, token):
        """(entry, None) for a good token, else (None, HttpError)."""
        if token in self.api_keys:
            return {"sub": "apikey", "kind": "apikey"}, None
        unknown = HttpError(401, ERR_UNAUTHORIZED, "The token is not valid for this server.")
        parts = token.split(".")
        if len(parts) != 3:
            return None, unknown
        try:
            signing_input = (parts[0] + "." + parts[1]).encode("ascii")
            expected = b64url(hmac.new(self.secret, signing_input, hashlib.sha256).digest())
            if not hmac.compare_digest(expected, parts[2]):
                return None, unknown
            payload = json.loads(b64url_decode(parts[1]))
            jti = payload["jti"]
        except (ValueError, KeyError, TypeError, UnicodeError):
            return None, unknown
        with self.lock:
            entry = self.tokens.get(jti)
            if entry is None or entry["revoked"]:
                return None, unknown
            if entry["expired"] or entry["exp"] <= time.time():
                return None, HttpError(401, ERR_TOKEN_EXPIRED, "The token has expired.")
            return dict(entry, jti=jti), None

    def revoke_token(self, jti):
        with self.lock:
            if jti in self.tokens:
                self.tokens[jti]["revoked"] = True

    def expire_tokens(self):
        with self.lock:
            for entry in self.tokens.values():
                entry["expired"] = True

    def check_user(self, name, password, domain_type=None, domain_name=None):
        with self.lock:
            known = self.users.get(name)
        if isinstance(known, str):
            return hmac.compare_digest(known, password or "")
        if isinstance(known, dict):
            if not hmac.compare_digest(str(known.get("password", "")), password or ""):
                return False
            for member, given in (("domainType", domain_type), ("domainName", domain_name)):
                if member in known and given is not None and known[member] != given:
                    return False
            return True
        return False


class TlsContexts:
    """Server contexts per (CA kind, certificate mode), built on first use."""

    LEAVES = {
        ("qxca", "normal"): "qxca/server",
        ("qxca", "wrongname"): "qxca/wrongname",
        ("qxca", "expired"): "qxca/expired",
        ("qxca", "revoked"): "qxca/server",  # the product's CA has no revoked leaf
        ("eca", "normal"): "eca/server",
        ("eca", "wrongname"): "eca/wrongname",
        ("eca", "expired"): "eca/expired",
        ("eca", "revoked"): "eca/revoked",
    }

    def __init__(self, pki, state):
        self.pki = pki
        self.state = state
        self.lock = threading.Lock()
        self.contexts = {}
        self.tmpdir = None
        self.client_cas = [os.path.join(pki, "qxca", "ca.pem")]
        eca_bundle = os.path.join(pki, "eca", "cacert.pem")
        if os.path.exists(eca_bundle):
            self.client_cas.append(eca_bundle)
        else:
            for name in ("root.pem", "intermediate.pem"):
                if os.path.exists(os.path.join(pki, "eca", name)):
                    self.client_cas.append(os.path.join(pki, "eca", name))

    def get(self, kind, mode):
        with self.lock:
            ctx = self.contexts.get((kind, mode))
            if ctx is None:
                try:
                    ctx = self._build(kind, mode)
                except (OSError, ssl.SSLError) as e:
                    if mode == "normal":
                        raise
                    LOG.error("cannot load %s leaf for %s (%s); using the normal one", mode, kind, e)
                    ctx = self.contexts.get((kind, "normal")) or self._build(kind, "normal")
                self.contexts[(kind, mode)] = ctx
            return ctx

    def _chain_file(self, kind, stem):
        pem = os.path.join(self.pki, stem + ".pem")
        with open(pem, encoding="ascii") as f:
            text = f.read()
        intermediate = os.path.join(self.pki, "eca", "intermediate.pem")
        # ECA leaves must travel with their intermediate, or clients cannot build the chain.
        if kind == "eca" and text.count("BEGIN CERTIFICATE") == 1 and os.path.exists(intermediate):
            with open(intermediate, encoding="ascii") as f:
                text = text.rstrip("\n") + "\n" + f.read()
            if self.tmpdir is None:
                self.tmpdir = tempfile.mkdtemp(prefix="qxemu-")
            pem = os.path.join(self.tmpdir, stem.replace("/", "_") + "-chain.pem")
            with open(pem, "w", encoding="ascii") as f:
                f.write(text)
        return pem

    def _build(self, kind, mode):
        stem = self.LEAVES[(kind, mode)]
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.minimum_version = ssl.TLSVersion.TLSv1_2
        ctx.load_cert_chain(self._chain_file(kind, stem), os.path.join(self.pki, stem + ".key"))
        ctx.verify_mode = ssl.CERT_OPTIONAL
        for ca in self.client_cas:
            ctx.load_verify_locations(ca)
        # Without TLS 1.3 tickets every new connection presents the current leaf,
        # so a certificate-mode switch takes effect at once (--session-tickets:
        # clients may resume, as against a real server).
        ctx.num_tickets = 2 if self.state.session_tickets else 0
        # Offered h2 is declined: this server speaks HTTP/1.1 only.
        ctx.set_alpn_protocols(["http/1.1"])
        if not self.state.session_tickets:
            ctx.options |= ssl.OP_NO_TICKET
        ctx.sni_callback = self._on_sni
        return ctx

    def _on_sni(self, sslsock, server_name, initial):
        try:
            sslsock.qx_sni = server_name
        except AttributeError:
            pass
        kind = "eca" if server_name and server_name.upper() == "ECA" else "qxca"
        try:
            target = self.get(kind, self.state.cert_mode)
        except (OSError, ssl.SSLError) as e:
            LOG.error("no certificate for SNI %r: %s", server_name, e)
            return ssl.ALERT_DESCRIPTION_INTERNAL_ERROR
        if target is not initial:
            sslsock.context = target
        return None


class Request:
    def __init__(self):
        self.method = ""
        self.target = ""
        self.version = "HTTP/1.1"
        self.path = ""
        self.query = ""
        self.headers = []  # [(name, value)] as sent
        self.body = b""

    def header(self, name):
        values = [v for n, v in self.headers if n.lower() == name.lower()]
        return ", ".join(values) if values else None

    def header_dict(self):
        out = {}
        lower = {}
        for name, value in self.headers:
            key = lower.setdefault(name.lower(), name)
            out[key] = out[key] + ", " + value if key in out else value
        return out


class Response:
    def __init__(self, status, body=b"", content_type="application/json", headers=None):
        self.status = status
        if isinstance(body, (dict, list)):
            body = json.dumps(body).encode()
        elif isinstance(body, str):
            body = body.encode()
        self.body = body
        self.content_type = content_type
        self.headers = headers or []
        self.close = False


def error_response(status, code, message):
    return Response(status, error_body(code, message))


class Connection:
    """One TLS connection: reads requests until the peer or an error ends it."""

    def __init__(self, app, tls, peer):
        self.app = app
        self.state = app.state
        self.tls = tls
        self.peer = peer
        self.rfile = tls.makefile("rb", buffering=65536)
        self.sni = getattr(tls, "qx_sni", None)
        self.subject = format_subject(tls.getpeercert())
        self.tls_version = tls.version()
        self.resumed = bool(tls.session_reused)
        self.id = self.state.next_connection()
        with self.state.lock:
            self.tunnel_address = self.state.tunnel_peers.get(tuple(peer[:2]))
        self.tunnel = self.tunnel_address is not None

    def serve(self):
        self.tls.settimeout(IDLE_TIMEOUT)
        while True:
            try:
                req = self.read_request()
            except HttpError as e:
                resp = error_response(e.status, e.code, e.message)
                resp.close = True
                self.send(resp, None)
                return
            if req is None:
                return
            resp = self.dispatch(req)
            if resp is None:  # dropped or closed on purpose
                return
            wants_close = (req.header("Connection") or "").lower()
            if req.version == "HTTP/1.0":
                resp.close = resp.close or "keep-alive" not in wants_close
            else:
                resp.close = resp.close or "close" in wants_close
            self.send(resp, req)
            LOG.info("%s /%s -> %d", req.method, req.path, resp.status)
            if resp.close:
                return

    # ---- parsing
    def read_line(self, limit):
        line = self.rfile.readline(limit + 1)
        if len(line) > limit:
            raise HttpError(400, ERR_BAD_REQUEST, "Request line or header too long.", True)
        return line

    def read_request(self):
        line = self.read_line(MAX_LINE)
        skipped = 0
        while line in (b"\r\n", b"\n") and skipped < 4:  # stray line ends between requests
            line = self.read_line(MAX_LINE)
            skipped += 1
        if not line:
            return None
        req = Request()
        try:
            text = line.decode("ascii").rstrip("\r\n")
        except UnicodeDecodeError:
            raise HttpError(400, ERR_BAD_REQUEST, "Malformed request line.", True)
        parts = text.split(" ")
        if (
            len(parts) != 3
            or not parts[0].isalpha()
            or not parts[0].isupper()
            or parts[2] not in ("HTTP/1.0", "HTTP/1.1")
            or not parts[1].startswith("/")
        ):
            raise HttpError(400, ERR_BAD_REQUEST, "Malformed request line.", True)
        req.method, req.target, req.version = parts
        path, _, req.query = req.target.partition("?")
        req.path = path.lstrip("/")
        total = 0
        while True:
            line = self.read_line(MAX_LINE)
            if not line:
                raise HttpError(400, ERR_BAD_REQUEST, "Connection closed inside the headers.", True)
            total += len(line)
            if total > MAX_HEADER_BYTES or len(req.headers) >= MAX_HEADERS:
                raise HttpError(400, ERR_BAD_REQUEST, "Request headers too large.", True)
            if line in (b"\r\n", b"\n"):
                break
            try:
                text = line.decode("latin-1").rstrip("\r\n")
            except UnicodeDecodeError:
                raise HttpError(400, ERR_BAD_REQUEST, "Malformed header.", True)
            name, colon, value = text.partition(":")
            if not colon or not name or name != name.strip() or " " in name or "\t" in name:
                raise HttpError(400, ERR_BAD_REQUEST, "Malformed header.", True)
            req.headers.append((name, value.strip()))
        req.body = self.read_body(req)
        return req

    def read_body(self, req):
        lengths = [v for n, v in req.headers if n.lower() == "content-length"]
        chunked = (req.header("Transfer-Encoding") or "").lower()
        if lengths and chunked:
            raise HttpError(400, ERR_BAD_REQUEST, "Both Content-Length and Transfer-Encoding.", True)
        if chunked and chunked != "chunked":
            raise HttpError(400, ERR_BAD_REQUEST, "Unsupported transfer encoding.", True)
        length = 0
        if lengths:
            values = {v.strip() for v in ",".join(lengths).split(",")}
            if len(values) != 1 or not next(iter(values)).isdigit():
                raise HttpError(400, ERR_BAD_REQUEST, "Bad Content-Length.", True)
            length = int(next(iter(values)))
            if length > MAX_BODY:
                raise HttpError(413, ERR_BAD_REQUEST, "Request body too large.", True)
        if (length or chunked) and (req.header("Expect") or "").lower() == "100-continue":
            self.tls.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        if chunked:
            return self.read_chunked()
        body = self.rfile.read(length) if length else b""
        if len(body) != length:
            raise HttpError(400, ERR_BAD_REQUEST, "Request body shorter than its Content-Length.", True)
        return body

    def read_chunked(self):
        body = bytearray()
        while True:
            size_text = self.read_line(MAX_LINE).split(b";")[0].strip()
            try:
                size = int(size_text, 16)
            except ValueError:
                raise HttpError(400, ERR_BAD_REQUEST, "Bad chunk size.", True)
            if size < 0 or len(body) + size > MAX_BODY:
                raise HttpError(400, ERR_BAD_REQUEST, "Bad chunk size.", True)
            if size == 0:
                while self.read_line(MAX_LINE) not in (b"\r\n", b"\n", b""):
                    pass  # trailers are ignored
                return bytes(body)
            chunk = self.rfile.read(size)
            if len(chunk) != size or self.read_line(MAX_LINE) not in (b"\r\n", b"\n"):
                raise HttpError(400, ERR_BAD_REQUEST, "Truncated chunk.", True)
            body += chunk

    # ---- dispatch
    def dispatch(self, req):
        self.state.record(
            {
                "method": req.method,
                "path": req.path,
                "query": req.query,
                "headers": req.header_dict(),
                "body": req.body.decode("utf-8", "replace"),
                "sni": self.sni,
                "clientSubject": self.subject,
                "tunnel": self.tunnel,
                "tunnelAddress": self.tunnel_address,
                "connection": self.id,
                "tlsVersion": self.tls_version,
                "resumed": self.resumed,
                "peer": self.peer[0],
            }
        )
        fault = self.state.take_fault(req.path)
        if fault:
            resp = self.apply_fault(fault, req)
            if resp is not False:
                return resp
        try:
            return self.app.route(req, self)
        except HttpError as e:
            resp = error_response(e.status, e.code, e.message)
            resp.close = e.close
            return resp

    def apply_fault(self, fault, req):
        """A Response, None when the connection was ended, False to answer normally."""
        kind = fault["kind"]
        LOG.info("fault %s on /%s", kind, req.path)
        if kind == "delay":
            time.sleep(fault["seconds"])
            return False
        if kind in ("503", "502"):
            status = int(kind)
            code = ERR_UNAVAILABLE if status == 503 else ERR_BAD_GATEWAY
            default = "The service is temporarily unavailable." if status == 503 else "Bad gateway."
            body = fault["body"] if fault["body"] is not None else error_body(code, default)
            return Response(status, body)
        if kind == "status":
            body = fault["body"]
            if body is None:
                body = error_body(ERR_BAD_REQUEST, "Scripted status %d." % fault["status"])
            return Response(fault["status"], body, headers=list(fault["headers"].items()))
        if kind == "notjson":
            body = fault["body"] if isinstance(fault["body"], str) else "<html>this is not JSON</html>"
            return Response(200, body)
        if kind in ("drop", "reset-body", "stall-body", "stall"):
            body = json.dumps({"data": "x" * 200}).encode()
            head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n"
            try:
                self.tls.sendall((head % len(body)).encode() + body[: len(body) // 3])
                if kind in ("stall-body", "stall"):
                    time.sleep(fault["seconds"])
                if kind == "stall":
                    self.tls.sendall(body[len(body) // 3:])
            except OSError:
                pass
            if kind == "reset-body":
                abort_connection(self.tls)
            return None
        if kind == "reset":
            abort_connection(self.tls)
            return None
        if kind == "raw":
            raw = fault["body"] if isinstance(fault["body"], str) else ""
            try:
                self.tls.sendall(raw.encode("latin-1", "replace"))
            except OSError:
                pass
            return None
        if kind == "big-headers":
            size, line = fault["size"], fault["lineSize"]
            headers, n = [], 0
            while size > 0:
                name = "X-Filler-%d" % n
                value = "h" * max(1, min(size, line) - len(name) - 4)
                headers.append((name, value))
                size -= len(name) + len(value) + 4
                n += 1
            return Response(200, json.dumps({"filler": n}), headers=headers)
        if kind == "big-body":
            self.stream_body(fault["size"], fault["chunked"])
            return None
        return None  # "close" (and "alert", which only a handshake can carry): no answer

    def stream_body(self, size, chunked):
        """200 with size bytes of JSON-ish filler, written piece by piece, never held whole."""
        head = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
        head += "Transfer-Encoding: chunked\r\n" if chunked else "Content-Length: %d\r\n" % size
        piece = b"x" * 65536
        try:
            self.tls.sendall((head + "Connection: close\r\n\r\n").encode())
            left = size
            while left > 0:
                part = piece[: min(left, len(piece))]
                self.tls.sendall(b"%x\r\n%s\r\n" % (len(part), part) if chunked else part)
                left -= len(part)
            if chunked:
                self.tls.sendall(b"0\r\n\r\n")
        except OSError as e:
            LOG.info("big body ended early: %s", e)

    # ---- output
    def send(self, resp, req):
        cfg = self.state.snapshot()
        lines = [
            "HTTP/1.1 %d %s" % (resp.status, REASONS.get(resp.status, "Status")),
            "Date: " + time.strftime("%a, %d %b %Y %H:%M:%S GMT", time.gmtime()),
            "Server: qxemu",
        ]
        if cfg["targetMaster"] is not None:
            lines.append("X-Target-Master: " + cfg["targetMaster"])
        if cfg["targetMasterId"] is not None:
            lines.append("X-Target-Master-ID: " + cfg["targetMasterId"])
        if cfg["apiVersion"] is not None:
            lines.append("X-Arvion-API-Version: " + cfg["apiVersion"])
        if req is not None and req.path in cfg["cacheValidity"]:
            lines.append("X-Cache-Validity: " + cfg["cacheValidity"][req.path])
        if resp.body or resp.status not in (204, 304):
            lines.append("Content-Type: " + resp.content_type)
        lines.append("Content-Length: %d" % len(resp.body))
        for name, value in resp.headers:
            lines.append("%s: %s" % (name, value))
        if resp.close:
            lines.append("Connection: close")
        data = ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")
        if req is None or req.method != "HEAD":
            data += resp.body
        try:
            self.tls.sendall(data)
        except OSError as e:
            LOG.info("peer went away while answering: %s", e)
            resp.close = True


class App:
    """Routes requests; shared by all connections."""

    def __init__(self, args, state):
        self.args = args
        self.state = state
        self.tls = TlsContexts(args.pki, state)
        self.tls_address = None  # (host, port) of the TLS listener, once bound
        self.routes = {
            PING: (("GET", "HEAD"), self.ping),
            CACERT: (("GET", "HEAD"), self.cacert),
            LOGIN_WITH_CERT: (("POST",), self.login_with_cert),
            LOGIN: (("POST",), self.user_login),
            LOGOUT: (("POST",), self.logout),
            APPLIANCE_LOGIN: (("POST",), self.appliance_login),
        }
        protected = ("GET", "HEAD", "POST", "PUT", "PATCH", "DELETE")
        for path in PROTECTED:
            self.routes[path] = (protected, self.echo)

    def route(self, req, conn):
        path = req.path.lower()
        if path not in self.routes:
            raise HttpError(404, ERR_NOT_FOUND, "No resource at /%s." % req.path)
        methods, handler = self.routes[path]
        if req.method not in methods:
            raise HttpError(405, ERR_METHOD, "Method %s is not allowed here." % req.method)
        if path.startswith("arvion/") and path != PING:
            self.check_media_types(req)
        return handler(req, conn)

    def check_media_types(self, req):
        server = parse_version(self.state.snapshot()["apiVersion"] or "")
        accept = req.header("Accept")
        if accept:
            entries = parse_media_list(accept)
            ok = any(
                (t in VENDOR_TYPES and vendor_version_ok(p, server)) or t in PLAIN_ACCEPTABLE
                for t, p in entries
            )
            if entries and not ok:
                raise HttpError(406, ERR_NOT_ACCEPTABLE, "None of the accepted media types is supported.")
        ctype = req.header("Content-Type")
        if req.body and ctype:
            entries = parse_media_list(ctype)
            if entries and entries[0][0] in VENDOR_TYPES and not vendor_version_ok(entries[0][1], server):
                raise HttpError(
                    415, ERR_UNSUPPORTED_MEDIA, "The request's media type version is not supported."
                )

    def authorize(self, req):
        value = (req.header("Authorization") or "").strip()
        if value[:7].lower() == "bearer ":
            value = value[7:].strip()
        if not value:
            raise HttpError(401, ERR_UNAUTHORIZED, "Authorization is required.")
        entry, err = self.state.check_token(value)
        if err:
            raise err
        return entry

    @staticmethod
    def json_body(req):
        try:
            doc = json.loads(req.body.decode("utf-8")) if req.body else None
        except (UnicodeDecodeError, ValueError):
            raise HttpError(400, ERR_BAD_REQUEST, "The request body is not JSON.")
        if not isinstance(doc, dict):
            raise HttpError(400, ERR_BAD_REQUEST, "The request body must be a JSON object.")
        return doc

    # ---- handlers
    def ping(self, req, conn):
        return Response(200, "pong\n", "text/plain")

    def cacert(self, req, conn):
        certs = []
        for ca_type, rel in (("QXCA", "qxca/ca.pem"), ("ECA", "eca/cacert.pem")):
            try:
                with open(os.path.join(self.args.pki, rel), encoding="ascii") as f:
                    certs.append({"caType": ca_type, "pem": f.read()})
            except OSError:
                pass
        return Response(200, {"caCertificates": certs})

    def login_with_cert(self, req, conn):
        if not conn.subject:
            raise HttpError(401, ERR_LOGIN_REFUSED, "A verified host certificate is required.")
        token, validity = self.state.issue_token(conn.subject, "machine")
        cfg = self.state.snapshot()
        return Response(
            200,
            {
                "token": token,
                "validity": validity,
                "trustVersion": cfg["trustVersion"],
                "renewRequired": cfg["renewRequired"],
            },
        )

    def user_login(self, req, conn):
        doc = self.json_body(req)
        fields = [doc.get(k) for k in ("domainType", "domainName", "userName", "password")]
        if not all(isinstance(f, str) for f in fields):
            raise HttpError(
                400, ERR_BAD_REQUEST, "domainType, domainName, userName and password are required."
            )
        domain_type, domain_name, user, password = fields
        if not self.state.check_user(user, password, domain_type, domain_name):
            raise HttpError(401, ERR_LOGIN_REFUSED, "Invalid user name or password.")
        token, validity = self.state.issue_token(user, "user")
        return Response(201, {"token": token, "validity": validity})

    def logout(self, req, conn):
        token = (req.header("Authorization") or "").strip()
        if token[:7].lower() == "bearer ":
            token = token[7:].strip()
        if not token and req.body:
            session = self.json_body(req).get("sessionToken")
            token = session if isinstance(session, str) else ""
        if not token:
            raise HttpError(401, ERR_UNAUTHORIZED, "No session to log out.")
        entry, err = self.state.check_token(token)
        if err or entry.get("kind") != "user":
            raise HttpError(401, ERR_UNAUTHORIZED, "The session is not known.")
        self.state.revoke_token(entry["jti"])
        return Response(200, {})

    def appliance_login(self, req, conn):
        doc = self.json_body(req)
        user, password = doc.get("username"), doc.get("password")
        if not isinstance(user, str) or not isinstance(password, str):
            raise HttpError(400, ERR_BAD_REQUEST, "username and password are required.")
        if not self.state.check_user(user, password):
            raise HttpError(401, ERR_LOGIN_REFUSED, "Invalid user name or password.")
        token, validity = self.state.issue_token(user, "appliance")
        return Response(200, {"accessToken": token, "tokenType": "Bearer", "expiresIn": validity})

    def echo(self, req, conn):
        entry = self.authorize(req)
        text = req.body.decode("utf-8", "replace")
        try:
            parsed = json.loads(text) if text else None
        except ValueError:
            parsed = None
        return Response(
            200,
            {
                "method": req.method,
                "path": req.path,
                "query": req.query,
                "contentType": req.header("Content-Type"),
                "body": text,
                "json": parsed,
                "subject": entry["sub"],
                "tokenKind": entry["kind"],
            },
        )


def abort_connection(sock):
    """Ends a connection with a TCP reset (no FIN, no TLS close_notify)."""
    try:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()  # now, before the server's own shutdown could send a FIN
    except OSError:
        pass


def handshake_fault(fault, raw):
    """Plays a fault armed on the path "TLS" instead of the handshake."""
    kind = fault["kind"]
    LOG.info("fault %s on the TLS handshake", kind)
    try:
        if kind == "delay":  # accepted, then silence: the handshake stalls
            time.sleep(fault["seconds"])
            return
        raw.recv(16384)  # the ClientHello
        if kind == "alert":
            raw.sendall(TLS_ALERT_HANDSHAKE_FAILURE)
        elif kind == "raw" and isinstance(fault["body"], str):
            raw.sendall(fault["body"].encode("latin-1", "replace"))
        elif kind in ("reset", "reset-body"):
            abort_connection(raw)
    except OSError:
        pass


class TlsHandler(socketserver.BaseRequestHandler):
    def handle(self):
        app = self.server.app
        raw = self.request
        raw.settimeout(HANDSHAKE_TIMEOUT)
        fault = app.state.take_fault("TLS")
        if fault:
            handshake_fault(fault, raw)
            return
        try:
            raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            ctx = app.tls.get("qxca", app.state.snapshot()["certMode"])
            tls = ctx.wrap_socket(raw, server_side=True, do_handshake_on_connect=False)
        except (OSError, ssl.SSLError) as e:
            LOG.error("cannot set up TLS: %s", e)
            return
        try:
            tls.do_handshake()
            Connection(app, tls, self.client_address).serve()
        except (OSError, ssl.SSLError, ValueError) as e:
            LOG.info("connection from %s ended: %s", self.client_address, e)
        finally:
            try:
                tls.close()
            except OSError:
                pass


class TunnelHandler(socketserver.BaseRequestHandler):
    """HTTP CONNECT proxy: one request per connection, then raw relay."""

    def handle(self):
        state = self.server.app.state
        sock = self.request
        sock.settimeout(HANDSHAKE_TIMEOUT)
        try:
            head, rest = self.read_head(sock)
        except (OSError, ValueError):
            return
        lines = head.decode("latin-1").split("\r\n")
        parts = lines[0].split(" ")
        if len(parts) != 3 or not parts[2].startswith("HTTP/1."):
            self.answer(sock, 400, "Bad Request")
            return
        headers = {}
        for line in lines[1:]:
            name, colon, value = line.partition(":")
            if colon:
                headers[name.strip()] = value.strip()
        state.record(
            {
                "method": parts[0],
                "path": parts[1],
                "query": "",
                "headers": headers,
                "body": "",
                "sni": None,
                "clientSubject": None,
                "tunnel": True,
                "tunnelAddress": self.server.server_address[0],
                "connection": None,
                "tlsVersion": None,
            }
        )
        if parts[0] != "CONNECT":
            self.answer(sock, 405, "Method Not Allowed")
            return
        mode = self.server.tunnel
        master = self.master_headers(state, mode)
        fault = state.take_fault("CONNECT")
        if fault:
            if fault["kind"] == "delay":
                time.sleep(fault["seconds"])
            elif fault["kind"] in ("drop", "close"):
                return
            elif fault["kind"] == "reset":
                abort_connection(sock)
                return
            elif fault["kind"] == "status":
                self.answer(sock, fault["status"], REASONS.get(fault["status"], "Status"), master)
                return
            elif fault["kind"] in ("502", "503"):
                self.answer(sock, int(fault["kind"]), REASONS[int(fault["kind"])], master)
                return
        if mode["mode"] == "drop":
            return
        if mode["mode"] == "refuse":
            self.answer(sock, mode["status"], REASONS.get(mode["status"], "Status"), master)
            return
        if mode["mode"] == "down":
            # The tunnel opens, but nothing answers behind it.
            try:
                self.answer(sock, 200, "Connection established", master, final=False)
            except OSError:
                pass
            return
        target = mode["to"] or parts[1]
        if target == "self":
            host, port = self.server.app.tls_address
            target = "%s:%d" % (host, port)
        host, sep, port = target.rpartition(":")
        host = host.strip("[]")
        if not sep or not host or not port.isdigit() or not 0 < int(port) < 65536:
            self.answer(sock, 400, "Bad Request", master)
            return
        try:
            upstream = socket.create_connection((host, int(port)), timeout=5)
        except OSError as e:
            LOG.info("tunnel to %s failed: %s", parts[1], e)
            self.answer(sock, 502, "Bad Gateway", master)
            return
        key = tuple(upstream.getsockname()[:2])
        with state.lock:
            state.tunnel_peers[key] = self.server.server_address[0]
        try:
            self.answer(sock, 200, "Connection established", master, final=False)
            if rest:
                upstream.sendall(rest)
            self.relay(sock, upstream)
        except OSError:
            pass
        finally:
            with state.lock:
                state.tunnel_peers.pop(key, None)
            upstream.close()

    @staticmethod
    def read_head(sock):
        data = b""
        while b"\r\n\r\n" not in data:
            if len(data) > MAX_HEADER_BYTES:
                raise ValueError("CONNECT request too large")
            chunk = sock.recv(4096)
            if not chunk:
                raise ValueError("closed before the end of the request")
            data += chunk
        head, _, rest = data.partition(b"\r\n\r\n")
        return head, rest

    @staticmethod
    def master_headers(state, mode):
        """X-Target-Master lines naming the master this tunnel leads to."""
        with state.lock:
            name = state.target_master if mode["master"] is None else mode["master"]
            uuid = state.target_master_id if mode["masterId"] is None else mode["masterId"]
        lines = b""
        if name:
            lines += b"X-Target-Master: %s\r\n" % name.encode()
        if uuid:
            lines += b"X-Target-Master-ID: %s\r\n" % uuid.encode()
        return lines

    @staticmethod
    def answer(sock, status, reason, extra=b"", final=True):
        """The answer to a CONNECT; final ones close the connection."""
        tail = b"Content-Length: 0\r\nConnection: close\r\n" if final else b""
        try:
            sock.sendall(b"HTTP/1.1 %d %s\r\n%s%s\r\n" % (status, reason.encode(), extra, tail))
        except OSError:
            if not final:
                raise

    @staticmethod
    def relay(a, b):
        peers = {a: b, b: a}
        open_reads = {a, b}
        with selectors.DefaultSelector() as sel:
            for s in peers:
                s.setblocking(True)
                s.settimeout(TUNNEL_IDLE_TIMEOUT)
                sel.register(s, selectors.EVENT_READ)
            while open_reads:
                ready = sel.select(TUNNEL_IDLE_TIMEOUT)
                if not ready:
                    return
                for key, _ in ready:
                    src = key.fileobj
                    data = src.recv(65536)
                    if data:
                        peers[src].sendall(data)
                        continue
                    sel.unregister(src)
                    open_reads.discard(src)
                    try:
                        peers[src].shutdown(socket.SHUT_WR)
                    except OSError:
                        pass


class Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    block_on_close = False
    request_queue_size = 64

    def __init__(self, address, handler, app, tunnel=None):
        self.app = app
        self.tunnel = tunnel
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        super().__init__(address, handler)


class ControlHandler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "qxemu-control"

    def log_message(self, fmt, *args):
        LOG.info("control: " + fmt, *args)

    def reply(self, status, doc):
        data = json.dumps(doc).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        state = self.server.app.state
        if self.path == "/requests":
            with state.lock:
                self.reply(200, list(state.records))
        elif self.path == "/config":
            self.reply(200, state.snapshot())
        elif self.path == "/faults":
            with state.lock:
                self.reply(200, [f for f in state.faults if f["count"] != 0])
        else:
            self.reply(404, {"error": "unknown control path"})

    def do_POST(self):
        state = self.server.app.state
        length = self.headers.get("Content-Length", "0")
        if not length.isdigit() or int(length) > MAX_BODY:
            self.reply(400, {"error": "bad Content-Length"})
            return
        raw = self.rfile.read(int(length))
        try:
            doc = json.loads(raw.decode("utf-8")) if raw.strip() else {}
        except (UnicodeDecodeError, ValueError):
            self.reply(400, {"error": "body is not JSON"})
            return
        try:
            if self.path == "/reset":
                state.reset()
            elif self.path == "/faults":
                state.add_faults(doc)
            elif self.path == "/config":
                state.configure(doc)
                self.reply(200, state.snapshot())
                return
            elif self.path == "/expire-tokens":
                state.expire_tokens()
            else:
                self.reply(404, {"error": "unknown control path"})
                return
        except ConfigError as e:
            self.reply(400, {"error": str(e)})
            return
        self.reply(200, {})


class ControlServer(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False

    def __init__(self, address, app):
        self.app = app
        super().__init__(address, ControlHandler)


TUNNEL_MODES = ("relay", "refuse", "drop", "down")


def parse_tunnel(text):
    """ADDRESS[,mode=M][,to=HOST:PORT][,status=N][,master=NAME][,master-id=UUID]"""
    address, *items = text.split(",")
    if not address:
        raise ValueError("no address in %r" % text)
    tunnel = {"address": address, "mode": "relay", "to": None, "status": 502,
              "master": None, "masterId": None}
    for item in items:
        key, eq, value = item.partition("=")
        if not eq:
            raise ValueError("%r is not KEY=VALUE" % item)
        if key == "mode":
            if value not in TUNNEL_MODES:
                raise ValueError("mode is one of %s" % ", ".join(TUNNEL_MODES))
            tunnel["mode"] = value
        elif key == "to":
            host, sep, port = value.rpartition(":")
            if value != "self" and (not sep or not host or not port.isdigit()):
                raise ValueError("to takes HOST:PORT or self")
            tunnel["to"] = value
        elif key == "status":
            if not value.isdigit() or not 100 <= int(value) <= 599:
                raise ValueError("status takes an HTTP status")
            tunnel["status"] = int(value)
        elif key == "master":
            tunnel["master"] = value
        elif key == "master-id":
            tunnel["masterId"] = value
        else:
            raise ValueError("unknown key %r" % key)
    return tunnel


def parse_args(argv):
    p = argparse.ArgumentParser(description="Emulated master server for qxcurl tests.")
    p.add_argument("--pki", required=True, help="directory written by testing/pki/gen_pki.py")
    p.add_argument("--host", default="127.0.0.1", help="address of the TLS listener")
    p.add_argument("--port", type=int, default=0, help="TLS port; 0 picks a free one")
    p.add_argument("--api-version", default="6.0", help='"none" omits X-Arvion-API-Version')
    p.add_argument("--cert-mode", choices=CERT_MODES, default="normal")
    p.add_argument("--session-tickets", action="store_true",
                   help="issue TLS session tickets, so that clients can resume")
    p.add_argument("--token-lifetime", type=int, default=3600, help="seconds")
    p.add_argument("--cache-validity", action="append", default=[], metavar="PATH=VALUE")
    p.add_argument("--users", help='JSON file {"user": "password"}')
    p.add_argument("--apikey", action="append", default=[], help="API key accepted as a token")
    p.add_argument("--tunnel", action="append", default=[], metavar="ADDRESS[,KEY=VALUE...]",
                   help="CONNECT tunnel on ADDRESS:1556; keys mode (relay, refuse, drop, down), "
                   "to, status, master, master-id")
    p.add_argument("--tunnel-port", type=int, default=TUNNEL_PORT, help=argparse.SUPPRESS)
    p.add_argument("--server-name", default=DEFAULT_SERVER_NAME, help="sent as X-Target-Master")
    p.add_argument("--host-uuid", help="sent as X-Target-Master-ID (default from certmap.json)")
    p.add_argument("--log", help="log file (default: errors to stderr)")
    args = p.parse_args(argv)

    if args.api_version != "none" and parse_version(args.api_version) is None:
        p.error("--api-version must be dotted numbers or none")
    pairs = []
    for item in args.cache_validity:
        path, eq, value = item.partition("=")
        if not eq or not path:
            p.error("--cache-validity takes PATH=VALUE")
        pairs.append((path.lstrip("/"), value))
    args.cache_validity = pairs
    if args.users:
        try:
            with open(args.users, encoding="utf-8") as f:
                args.users = json.load(f)
        except (OSError, ValueError) as e:
            p.error("cannot read --users: %s" % e)
        if not isinstance(args.users, dict):
            p.error("--users must hold a JSON object")
    else:
        args.users = {"admin": {"password": "secret", "domainType": "unixpwd"}}
    try:
        args.tunnel = [parse_tunnel(t) for t in args.tunnel]
    except ValueError as e:
        p.error("--tunnel: %s" % e)
    args.target_master = args.server_name
    args.target_master_id = args.host_uuid or read_host_uuid(args.pki, args.server_name)
    return args


def main(argv=None):
    args = parse_args(argv if argv is not None else sys.argv[1:])
    if args.log:
        logging.basicConfig(
            filename=args.log,
            level=logging.INFO,
            format="%(asctime)s %(threadName)s %(levelname)s %(message)s",
        )
    else:
        logging.basicConfig(stream=sys.stderr, level=logging.WARNING, format="emulator: %(message)s")

    state = State(args)
    app = App(args, state)
    try:
        app.tls.get("qxca", state.cert_mode)
        app.tls.get("eca", state.cert_mode)
        servers = [Server((args.host, args.port), TlsHandler, app)]
        app.tls_address = servers[0].server_address[:2]
        control = ControlServer(("127.0.0.1", 0), app)
        servers.append(control)
        for tunnel in args.tunnel:
            servers.append(Server((tunnel["address"], args.tunnel_port), TunnelHandler, app, tunnel))
    except (OSError, ssl.SSLError) as e:
        LOG.error("cannot start: %s", e)
        print("emulator: cannot start: %s" % e, file=sys.stderr)
        return 2

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    for srv in servers:
        threading.Thread(target=srv.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True).start()

    sys.stdout.write("READY port=%d control=%d\n" % (servers[0].server_address[1], control.server_address[1]))
    sys.stdout.flush()
    LOG.info("listening on %s:%d", args.host, servers[0].server_address[1])

    while not stop.wait(0.1):
        pass
    for srv in servers:
        srv.shutdown()
        srv.server_close()
    if app.tls.tmpdir:
        shutil.rmtree(app.tls.tmpdir, ignore_errors=True)
    LOG.info("stopped")
    logging.shutdown()
    # Connection threads may sit in blocking reads; they hold nothing worth waiting for.
    os._exit(0)


if __name__ == "__main__":
    sys.exit(main())
