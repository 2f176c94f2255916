#!/usr/bin/env python3
"""Checks the test PKI generator: the certificates must fail and pass
verification exactly the way the TLS tests rely on."""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = os.environ.get("QXCURL_SOURCE_DIR",
                        os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
GEN = os.path.join(SOURCE, "testing", "pki", "gen_pki.py")

LAYOUT = """qxca/ca.pem qxca/ca.key qxca/server.pem qxca/server.key qxca/host.pem qxca/host.key
qxca/wrongname.pem qxca/wrongname.key qxca/expired.pem qxca/expired.key
eca/root.pem eca/root.key eca/intermediate.pem eca/intermediate.key eca/cacert.pem
eca/server.pem eca/server.key eca/host.pem eca/host.key eca/passphrase
eca/wrongname.pem eca/wrongname.key eca/expired.pem eca/expired.key
eca/revoked.pem eca/revoked.key eca/crl.pem eca/crl_expired.pem certmap.json""".split()

LEAVES = ["qxca/server", "qxca/host", "qxca/wrongname", "qxca/expired", "eca/server",
          "eca/host", "eca/wrongname", "eca/expired", "eca/revoked"]


def gen(outdir):
    return subprocess.run([sys.executable, GEN, outdir], capture_output=True, text=True)


def openssl(*args):
    return subprocess.run(["openssl"] + list(args), capture_output=True, text=True)


class PkiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="qxpkitest-")
        cls.out = os.path.join(cls.tmp, "pki")
        start = time.monotonic()
        cls.result = gen(cls.out)
        cls.elapsed = time.monotonic() - start

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def p(self, rel):
        return os.path.join(self.out, rel)

    def test_layout_is_complete_and_fast(self):
        self.assertEqual(0, self.result.returncode, self.result.stderr)
        self.assertLess(self.elapsed, 5.0)
        missing = [f for f in LAYOUT if not os.path.isfile(self.p(f))]
        self.assertEqual([], missing)
        self.assertEqual([], [n for n in os.listdir(self.tmp) if n.startswith("pki.")])

    def test_verification_outcomes(self):
        cacert, root, inter = self.p("eca/cacert.pem"), self.p("eca/root.pem"), \
            self.p("eca/intermediate.pem")
        crl, stale = self.p("eca/crl.pem"), self.p("eca/crl_expired.pem")
        cases = [
            # (arguments before the leaf, leaf, expected error or None)
            (["-CAfile", self.p("qxca/ca.pem")], "qxca/server", None),
            (["-CAfile", self.p("qxca/ca.pem")], "qxca/host", None),
            (["-CAfile", self.p("qxca/ca.pem")], "qxca/expired", "certificate has expired"),
            (["-CAfile", self.p("qxca/ca.pem")], "eca/server", "unable to get"),
            (["-CAfile", cacert], "eca/host", None),
            (["-CAfile", cacert], "eca/expired", "certificate has expired"),
            (["-CAfile", cacert], "qxca/server", "unable to get"),
            (["-CAfile", cacert, "-crl_check", "-CRLfile", crl], "eca/server", None),
            (["-CAfile", cacert, "-crl_check", "-CRLfile", crl], "eca/revoked",
             "certificate revoked"),
            (["-CAfile", cacert, "-crl_check", "-CApath", self.p("eca/crl")], "eca/revoked",
             "certificate revoked"),
            (["-CAfile", root, "-untrusted", inter, "-crl_check_all", "-CRLfile", crl],
             "eca/server", None),
            (["-CAfile", cacert, "-crl_check", "-CRLfile", stale], "eca/server",
             "CRL has expired"),
        ]
        for args, leaf, error in cases:
            with self.subTest(leaf=leaf, args=args):
                r = openssl("verify", *args, self.p(leaf + ".pem"))
                if error is None:
                    self.assertEqual(0, r.returncode, r.stdout + r.stderr)
                else:
                    self.assertNotEqual(0, r.returncode)
                    self.assertIn(error, r.stdout + r.stderr)

    def test_certmap_paths_resolve_from_a_root(self):
        root = tempfile.mkdtemp(dir=self.tmp)
        os.makedirs(os.path.join(root, "var"))
        os.symlink(self.out, os.path.join(root, "var", "pki"))
        doc = json.load(open(self.p("certmap.json")))
        self.assertEqual({"localhost", "127.0.0.1"}, set(doc["servers"]))
        self.assertEqual("localhost", doc["default"])
        for server, entry in doc["servers"].items():
            self.assertEqual(["QXCA", "ECA"], entry["caSupported"])
            for ca in ("QXCA", "ECA"):
                for field, rel in entry[ca].items():
                    if rel.startswith("var/pki/"):
                        with self.subTest(server=server, ca=ca, field=field):
                            self.assertTrue(os.path.isfile(os.path.join(root, rel)), rel)

    def test_second_run_and_racing_runs(self):
        before = open(self.p("qxca/ca.pem")).read()
        self.assertEqual(0, gen(self.out).returncode)
        self.assertEqual(before, open(self.p("qxca/ca.pem")).read())

        race = os.path.join(self.tmp, "race")
        procs = [subprocess.Popen([sys.executable, GEN, race], stderr=subprocess.PIPE)
                 for _ in range(3)]
        for proc in procs:
            _, err = proc.communicate(timeout=60)
            self.assertEqual(0, proc.returncode, err)
        self.assertTrue(os.path.isfile(os.path.join(race, "complete")))
        self.assertEqual([], [n for n in os.listdir(self.tmp) if n.startswith("race.")])

if __name__ == "__main__":
    unittest.main()
