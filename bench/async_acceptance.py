#!/usr/bin/env python3
"""The tool's parallel requests next to curl's own: `qxcurl --repeat N --parallel M`
and `curl --parallel --parallel-max M` sending the same N GETs to an independent
HTTPS server (Python's http.server over ssl, not the emulator), each run a fresh
process, process start included. Rounds alternate; medians and spread of wall
and CPU time (user + system of the child), and the connections the server saw.

    bench/async_acceptance.py [--build DIR] [--requests 256] [--parallel 64] [--rounds 9]
"""
import argparse
import os
import resource
import signal
import ssl
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


# ---- the independent server (run as a child of this script) ----

class Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 256  # every connection of a round may arrive at once


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        # The handshake runs in the connection's thread, not in accept().
        self.request.do_handshake()
        super().setup()
        with self.server.lock:
            self.server.connections += 1

    def do_GET(self):
        with self.server.lock:
            self.server.requests += 1
        body = b"pong\n"
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, fmt, *args):
        pass


def serve(cert, key, stats):
    server = Server(("127.0.0.1", 0), Handler)
    server.lock = threading.Lock()
    server.connections = server.requests = 0
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(cert, key)
    server.socket = ctx.wrap_socket(server.socket, server_side=True,
                                    do_handshake_on_connect=False)

    def dump(*_):
        with server.lock:
            with open(stats, "w") as f:
                f.write("%d %d\n" % (server.connections, server.requests))
            server.connections = server.requests = 0

    signal.signal(signal.SIGUSR1, dump)
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    print("READY %d" % server.server_address[1], flush=True)
    server.serve_forever()


# ---- the runner ----

def timed(argv, env):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    r = subprocess.run(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)
    return r, wall * 1000, cpu * 1000


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(SOURCE_DIR, "build"))
    p.add_argument("--requests", type=int, default=256)
    p.add_argument("--parallel", type=int, default=64)
    p.add_argument("--rounds", type=int, default=9)
    p.add_argument("--serve", nargs=3, help=argparse.SUPPRESS)
    a = p.parse_args()
    if a.serve:
        serve(*a.serve)
        return 0

    pki = os.path.join(a.build, "testpki")
    subprocess.run([sys.executable, os.path.join(SOURCE_DIR, "testing/pki/gen_pki.py"), pki],
                   check=True, stdout=subprocess.DEVNULL)
    ca = os.path.join(pki, "qxca", "ca.pem")
    work = tempfile.mkdtemp(prefix="qxaccept-")
    os.makedirs(os.path.join(work, "arvion"))
    os.makedirs(os.path.join(work, "tmp"))
    with open(os.path.join(work, "arvion", "arvion.conf"), "w") as f:
        f.write("WEB_SERVER_TUNNEL_USE = 2\nDISABLE_QXCURL_PREFERRED_NETWORKS = NO\n")
    stats = os.path.join(work, "stats")
    server = subprocess.Popen([sys.executable, os.path.abspath(__file__), "--serve",
                               os.path.join(pki, "qxca", "server.pem"),
                               os.path.join(pki, "qxca", "server.key"), stats],
                              stdout=subprocess.PIPE, text=True)
    port = int(server.stdout.readline().split()[1])
    url = "https://localhost:%d/arvion/ping" % port
    config = os.path.join(work, "curl.cfg")
    with open(config, "w") as f:
        f.write("".join('url = "%s"\noutput = "/dev/null"\n' % url for _ in range(a.requests)))
    env = {k: v for k, v in os.environ.items() if not k.startswith(("QXCURL_LOG", "ARVION_"))}
    env["ARVION_ROOT"] = work
    commands = {
        "qxcurl": [os.path.join(a.build, "qxcurl"), "--server", "localhost", "--port", str(port),
                   "--ca-type", "QXCA", "--cacert", ca, "--repeat", str(a.requests),
                   "--parallel", str(a.parallel), "GET", "arvion/ping"],
        "curl": ["curl", "-sS", "--fail", "--parallel", "--parallel-max", str(a.parallel),
                 "--cacert", ca, "-K", config],
    }
    print("%d GETs, at most %d in flight, against Python's http.server over TLS; %d rounds"
          % (a.requests, a.parallel, a.rounds))
    runs = {name: [] for name in commands}
    failed = False
    try:
        for rnd in range(a.rounds):
            order = list(commands) if rnd % 2 == 0 else list(reversed(list(commands)))
            for name in order:
                r, wall, cpu = timed(commands[name], env)
                server.send_signal(signal.SIGUSR1)
                for _ in range(100):
                    if os.path.exists(stats):
                        break
                    time.sleep(0.01)
                time.sleep(0.05)
                with open(stats) as f:
                    conns, reqs = (int(x) for x in f.read().split())
                os.remove(stats)
                ok = r.returncode == 0 and reqs == a.requests
                if name == "qxcurl":
                    ok = ok and ("Completed:\t%d" % a.requests) in r.stdout
                if not ok:
                    failed = True
                    print("round %d, %s failed: exit %d, %d requests seen\n%s"
                          % (rnd, name, r.returncode, reqs, (r.stdout + r.stderr)[-2000:]))
                runs[name].append((wall, cpu, conns))
    finally:
        server.terminate()
        server.wait()

    def stat(name, i):
        v = [x[i] for x in runs[name]]
        return statistics.median(v), min(v), max(v)

    print("\n%-8s %-8s %9s %19s %8s  %s" % ("", "metric", "median", "spread (min-max)", "/curl",
                                            "target"))
    missed = False
    for name in commands:
        for i, metric in ((0, "wall ms"), (1, "CPU ms")):
            med, lo, hi = stat(name, i)
            ratio = med / stat("curl", i)[0]
            target = "-"
            if name == "qxcurl":
                target = "<= 1.50x " + ("ok" if ratio <= 1.5 else "MISSED")
                missed = missed or ratio > 1.5
            print("%-8s %-8s %9.1f %9.1f - %-8.1f %7.2fx  %s" % (name, metric, med, lo, hi, ratio,
                                                                 target))
        conns = max(x[2] for x in runs[name])
        target = "-"
        if name == "qxcurl":
            target = "<= %d %s" % (a.parallel, "ok" if conns <= a.parallel else "MISSED")
            missed = missed or conns > a.parallel
        print("%-8s %-8s %9d  (most in one run)  %s" % (name, "conns", conns, target))
    print("\n" + ("some targets MISSED" if missed or failed else "all targets met"))
    return 1 if missed or failed else 0


if __name__ == "__main__":
    sys.exit(main())
