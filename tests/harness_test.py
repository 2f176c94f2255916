#!/usr/bin/env python3
"""Smoke checks of the test tools where no library test would notice a fault:
the PKI generator racing itself, the emulator refusing what would make a test
pass vacuously (a misspelt fault, a forged token), and its clean exit."""
import http.client
import json
import os
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = os.environ.get("QXCURL_SOURCE_DIR",
                        os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
GEN = os.path.join(SOURCE, "testing", "pki", "gen_pki.py")
EMULATOR = os.path.join(SOURCE, "testing", "emulator", "emulator.py")


class HarnessTest(unittest.TestCase):
    def test_pki_race_then_emulator_refusals_and_clean_exit(self):
        tmp = tempfile.mkdtemp(prefix="qxharness-")
        self.addCleanup(shutil.rmtree, tmp, True)
        pki = os.path.join(tmp, "pki")
        procs = [subprocess.Popen([sys.executable, GEN, pki], stderr=subprocess.PIPE)
                 for _ in range(3)]
        for proc in procs:
            self.assertEqual(0, proc.wait(60), proc.stderr.read())
            proc.stderr.close()
        self.assertEqual(["pki"], os.listdir(tmp))

        emu = subprocess.Popen([sys.executable, EMULATOR, "--pki", pki], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
        fields = dict(f.split("=") for f in emu.stdout.readline().split()[1:])
        port, control = int(fields["port"]), int(fields["control"])

        def call(conn, method, path, body=None, headers=None):
            conn.request(method, path, body=body, headers=headers or {})
            resp = conn.getresponse()
            return resp.status, resp.read()

        ctl = http.client.HTTPConnection("127.0.0.1", control, timeout=10)
        for path, doc in (("/faults", {"kind": "explode"}), ("/faults", {"kind": "503", "count": "2"}),
                          ("/config", {"certMode": "bogus"}), ("/config", {"noSuchKey": 1})):
            with self.subTest(path=path, doc=doc):
                self.assertEqual(400, call(ctl, "POST", path, json.dumps(doc))[0])
        ctx = ssl.create_default_context(cafile=os.path.join(pki, "qxca/ca.pem"))
        ctx.load_cert_chain(os.path.join(pki, "qxca/host.pem"), os.path.join(pki, "qxca/host.key"))
        tls = http.client.HTTPSConnection("localhost", port, context=ctx, timeout=10)
        token = json.loads(call(tls, "POST", "/arvion/loginwithcert", "{}")[1])["token"]
        head, claims, sig = token.split(".")
        forged = head + "." + claims[:-2] + ("AA" if claims[-2:] != "AA" else "BB") + "." + sig
        for value, status in ((token, 200), (forged, 401), ("a.b.c", 401), (None, 401)):
            with self.subTest(authorization=value):
                headers = {"Authorization": value} if value else {}
                self.assertEqual(status, call(tls, "GET", "/arvion/config/hosts", None, headers)[0])
        # An idle kept-alive connection does not hold the exit back.
        start = time.monotonic()
        emu.send_signal(signal.SIGTERM)
        out, err = emu.communicate(timeout=10)
        tls.close()
        ctl.close()
        self.assertEqual((0, "", ""), (emu.returncode, out, err))
        self.assertLess(time.monotonic() - start, 3)


if __name__ == "__main__":
    unittest.main()
