#!/usr/bin/env python3
"""Generates the test PKI: the product's own CA (qxca/), an external CA with an
intermediate (eca/), server, host and deliberately broken leaves, CRLs and a
certificate map template.

    gen_pki.py OUTDIR

Idempotent: when OUTDIR/complete exists nothing is done. The tree is built in
OUTDIR.tmp-<pid> and renamed into place, so parallel callers on the same OUTDIR
are safe: the loser of the race drops its copy and uses the winner's.
"""

import datetime
import errno
import json
import os
import secrets
import shutil
import subprocess
import sys

# Written to OUTDIR/complete; a tree of another version is made anew.
PKI_VERSION = "2\n"
CRL_URI = "http://127.0.0.1:1/eca.crl"
HOST_UUID = "6f1c3b52-8e0d-4a57-9c1e-2d4b7a90e513"
SERVER_NAMES = ("localhost", "127.0.0.1")
# Loopback addresses on which tests run a server on the fixed port 1556.
FIXED_PORT_ADDRESSES = ["127.0.3.%d" % i for i in range(1, 9)]
SERVER_SAN = "DNS:localhost, IP:127.0.0.1" + "".join(", IP:" + a for a in FIXED_PORT_ADDRESSES)
WRONG_SAN = "DNS:wrong1.example, DNS:wrong2.example, IP:10.9.8.7"

# One section per signing CA; $dir resolves inside its own section.
CA_SECTION = """\
[ ca_{name} ]
dir = {work}/{name}
database = $dir/index.txt
new_certs_dir = $dir/new
crlnumber = $dir/crlnumber
rand_serial = yes
default_md = sha256
policy = policy_any
unique_subject = no
email_in_dn = no
copy_extensions = none

"""

CONFIG = """\
[ policy_any ]
organizationName = optional
organizationalUnitName = optional
commonName = supplied

[ req ]
distinguished_name = req_dn
prompt = no
[ req_dn ]
CN = unused

[ crl_ext ]
authorityKeyIdentifier = keyid:always

[ ext_root ]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always

[ ext_intermediate ]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always

[ ext_server ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth, clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = {server_san}
crlDistributionPoints = URI:{crl_uri}

[ ext_wrongname ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth, clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = {wrong_san}
crlDistributionPoints = URI:{crl_uri}

[ ext_host_qxca ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = clientAuth, serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:testhost.qxca
crlDistributionPoints = URI:{crl_uri}

[ ext_host_eca ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = clientAuth, serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:testhost.eca
crlDistributionPoints = URI:{crl_uri}
"""


class PkiError(Exception):
    pass


def stamp(when):
    """openssl ca's date form (UTCTime)."""
    return when.strftime("%y%m%d%H%M%SZ")


class Builder:
    def __init__(self, out):
        self.out = out
        self.work = os.path.join(out, ".work")
        now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
        # Starting a day back keeps fresh certificates valid on a host whose
        # clock is slightly behind.
        self.start = stamp(now - datetime.timedelta(days=1))
        self.end = stamp(now + datetime.timedelta(days=3650))
        self.expired_start = stamp(now - datetime.timedelta(days=30))
        self.expired_end = stamp(now - datetime.timedelta(days=1))
        self.crl_stale_last = stamp(now - datetime.timedelta(days=10))
        self.crl_stale_next = stamp(now - datetime.timedelta(days=1))
        self.cnf = os.path.join(self.work, "openssl.cnf")

    def run(self, *args):
        proc = subprocess.run(["openssl"] + list(args), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if proc.returncode != 0:
            raise PkiError("openssl %s failed (%d): %s" %
                           (args[0], proc.returncode,
                            proc.stderr.decode(errors="replace").strip()))
        return proc.stdout

    def path(self, rel):
        return os.path.join(self.out, rel)

    def setup(self):
        for d in ("qxca", "eca", "eca/crl"):
            os.makedirs(self.path(d))
        text = CONFIG.format(server_san=SERVER_SAN, wrong_san=WRONG_SAN, crl_uri=CRL_URI)
        for name in ("qxca", "ecaroot", "ecaint"):
            d = os.path.join(self.work, name)
            os.makedirs(os.path.join(d, "new"))
            open(os.path.join(d, "index.txt"), "w").close()
            with open(os.path.join(d, "crlnumber"), "w") as f:
                f.write("1000\n")
            text += CA_SECTION.format(name=name, work=self.work)
        with open(self.cnf, "w") as f:
            f.write(text)

    def csr(self, key, subject, rsa_pass=None):
        """Creates key (EC P-256 unless rsa_pass given) and returns a CSR path."""
        csr = os.path.join(self.work, os.path.basename(key) + "-%d.csr" % secrets.randbits(32))
        if rsa_pass is None:
            self.run("req", "-config", self.cnf, "-new", "-newkey", "ec", "-pkeyopt",
                     "ec_paramgen_curve:P-256", "-nodes", "-keyout", key, "-subj", subject,
                     "-out", csr)
        else:
            self.run("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048",
                     "-aes-256-cbc", "-pass", "file:" + rsa_pass, "-out", key)
            self.run("req", "-config", self.cnf, "-new", "-key", key, "-passin",
                     "file:" + rsa_pass, "-subj", subject, "-out", csr)
        os.chmod(key, 0o600)
        return csr

    def sign(self, ca, ca_cert, ca_key, csr, out, ext, expired=False):
        args = ["ca", "-batch", "-config", self.cnf, "-name", ca, "-in", csr, "-out", out,
                "-extensions", ext, "-notext", "-preserveDN", "-keyfile", ca_key]
        if ca_cert is None:
            args.append("-selfsign")
        else:
            args += ["-cert", ca_cert]
        if expired:
            args += ["-startdate", self.expired_start, "-enddate", self.expired_end]
        else:
            args += ["-startdate", self.start, "-enddate", self.end]
        self.run(*args)

    def leaf(self, ca, ca_cert, ca_key, name, subject, ext, expired=False, chain=None,
             rsa_pass=None):
        key = self.path(name + ".key")
        pem = self.path(name + ".pem")
        self.sign(ca, ca_cert, ca_key, self.csr(key, subject, rsa_pass), pem, ext, expired)
        if chain:
            with open(pem, "a") as f, open(chain) as c:
                f.write(c.read())
        return pem

    def crl(self, ca, ca_cert, ca_key, stale):
        args = ["ca", "-batch", "-config", self.cnf, "-name", ca, "-gencrl", "-cert", ca_cert,
                "-keyfile", ca_key, "-crlexts", "crl_ext"]
        if stale:
            args += ["-crl_lastupdate", self.crl_stale_last, "-crl_nextupdate",
                     self.crl_stale_next]
        else:
            args += ["-crl_lastupdate", self.start, "-crl_nextupdate", self.end]
        return self.run(*args).decode()

    def build(self):
        self.setup()
        # The product's own CA and its leaves.
        qca, qkey = self.path("qxca/ca.pem"), self.path("qxca/ca.key")
        self.sign("ca_qxca", None, qkey, self.csr(qkey, "/CN=QXCA Test Root"), qca, "ext_root")
        self.leaf("ca_qxca", qca, qkey, "qxca/server", "/O=QXCA Test/OU=server/CN=localhost",
                  "ext_server")
        self.leaf("ca_qxca", qca, qkey, "qxca/host", "/O=QXCA Test/CN=testhost.qxca",
                  "ext_host_qxca")
        self.leaf("ca_qxca", qca, qkey, "qxca/wrongname",
                  "/O=QXCA Test/OU=wrongname/CN=wrong1.example", "ext_wrongname")
        self.leaf("ca_qxca", qca, qkey, "qxca/expired", "/O=QXCA Test/OU=expired/CN=localhost",
                  "ext_server", expired=True)

        # The external CA: root, intermediate and leaves issued by the intermediate.
        root, rkey = self.path("eca/root.pem"), self.path("eca/root.key")
        inter, ikey = self.path("eca/intermediate.pem"), self.path("eca/intermediate.key")
        self.sign("ca_ecaroot", None, rkey, self.csr(rkey, "/CN=ECA Test Root"), root, "ext_root")
        self.sign("ca_ecaroot", root, rkey, self.csr(ikey, "/CN=ECA Test Intermediate"), inter,
                  "ext_intermediate")
        with open(self.path("eca/cacert.pem"), "w") as f:
            for p in (inter, root):
                with open(p) as c:
                    f.write(c.read())

        def eca_leaf(name, subject, ext, **kw):
            return self.leaf("ca_ecaint", inter, ikey, "eca/" + name, subject, ext, chain=inter,
                             **kw)

        eca_leaf("server", "/O=ECA Test/OU=server/CN=localhost", "ext_server")
        passfile = self.path("eca/passphrase")
        with open(passfile, "w") as f:
            f.write(secrets.token_urlsafe(18) + "\n")
        os.chmod(passfile, 0o600)
        eca_leaf("host", "/O=ECA Test/CN=testhost.eca", "ext_host_eca", rsa_pass=passfile)
        eca_leaf("wrongname", "/O=ECA Test/OU=wrongname/CN=wrong1.example", "ext_wrongname")
        eca_leaf("expired", "/O=ECA Test/OU=expired/CN=localhost", "ext_server", expired=True)
        revoked = eca_leaf("revoked", "/O=ECA Test/OU=revoked/CN=localhost", "ext_server")
        self.run("ca", "-batch", "-config", self.cnf, "-name", "ca_ecaint", "-cert", inter,
                 "-keyfile", ikey, "-revoke", revoked, "-crl_reason", "keyCompromise")

        for stale, name in ((False, "crl.pem"), (True, "crl_expired.pem")):
            int_crl = self.crl("ca_ecaint", inter, ikey, stale)
            root_crl = self.crl("ca_ecaroot", root, rkey, stale)
            with open(self.path("eca/" + name), "w") as f:
                f.write(int_crl + root_crl)
            if not stale:
                self.hashed_crls((int_crl, root_crl))

        self.certmap()
        shutil.rmtree(self.work)
        with open(self.path("complete"), "w") as f:
            f.write(PKI_VERSION)

    def hashed_crls(self, crls):
        crldir = self.path("eca/crl")
        for text in crls:
            tmp = os.path.join(self.work, "one.crl")
            with open(tmp, "w") as f:
                f.write(text)
            h = self.run("crl", "-hash", "-noout", "-in", tmp).decode().strip()
            n = 0
            while os.path.exists(os.path.join(crldir, "%s.r%d" % (h, n))):
                n += 1
            shutil.copyfile(tmp, os.path.join(crldir, "%s.r%d" % (h, n)))

    def certmap(self):
        entry = {
            "hostUuid": HOST_UUID,
            "caSupported": ["QXCA", "ECA"],
            "caMode": 2,
            "trustVersion": "1",
            "QXCA": {"certificate": "var/pki/qxca/host.pem",
                     "privateKey": "var/pki/qxca/host.key",
                     "passphraseFile": "",
                     "trustStore": "var/webtruststore/cacert.pem",
                     "crl": ""},
            "ECA": {"certificate": "var/pki/eca/host.pem",
                    "privateKey": "var/pki/eca/host.key",
                    "passphraseFile": "var/pki/eca/passphrase",
                    "trustStore": "var/pki/eca/cacert.pem",
                    "crl": "var/pki/eca/crl.pem"},
        }
        doc = {"servers": {name: entry for name in SERVER_NAMES}, "default": "localhost"}
        with open(self.path("certmap.json"), "w") as f:
            json.dump(doc, f, indent=2)
            f.write("\n")


def current(outdir):
    try:
        with open(os.path.join(outdir, "complete")) as f:
            return f.read() == PKI_VERSION
    except OSError:
        return False


def retire(outdir):
    """Moves a complete tree of an older version out of the way."""
    if os.path.exists(os.path.join(outdir, "complete")) and not current(outdir):
        old = "%s.old-%d" % (outdir, os.getpid())
        try:
            os.rename(outdir, old)
        except OSError:
            return  # another process moved it first
        shutil.rmtree(old, ignore_errors=True)


def generate(outdir):
    outdir = os.path.abspath(outdir.rstrip("/") or "/")
    if current(outdir):
        return 0
    retire(outdir)
    parent = os.path.dirname(outdir)
    os.makedirs(parent, exist_ok=True)
    tmp = "%s.tmp-%d" % (outdir, os.getpid())
    shutil.rmtree(tmp, ignore_errors=True)
    os.makedirs(tmp)
    try:
        Builder(tmp).build()
        for _ in range(2):
            try:
                os.rename(tmp, outdir)
                return 0
            except OSError as e:
                if e.errno not in (errno.EEXIST, errno.ENOTEMPTY):
                    raise
            if current(outdir):
                return 0  # another process won the race
            retire(outdir)
            if not os.path.exists(outdir):
                continue
            # Only complete trees are ever renamed into place, so an
            # incomplete OUTDIR was not made by us; replace it only if empty.
            try:
                os.rmdir(outdir)
            except OSError:
                raise PkiError("%s exists and is not a generated PKI" % outdir)
        raise PkiError("could not move %s into place" % tmp)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def main(argv):
    if len(argv) != 2:
        sys.stderr.write("usage: gen_pki.py OUTDIR\n")
        return 2
    try:
        return generate(argv[1])
    except (PkiError, OSError) as e:
        sys.stderr.write("gen_pki.py: %s\n" % e)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
