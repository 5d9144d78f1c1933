"""Ordinary clients beside an attack, in a process of their own: what they get, and how fast.

As a program: ordinary.py ADDRESS PORT PATH tls|plain LIMIT. It asks until its standard input ends,
in turns over a kept connection and over a new one, and then writes one JSON object with the
latencies in seconds and the failures.
"""

import http.client
import json
import os
import select
import ssl
import subprocess
import sys
import time
from dataclasses import dataclass

from common.checks import milliseconds, quantile

PAUSE = 0.02  # seconds between two requests
AT_LEAST = 20  # requests, however short the attack is
TOLD = 3  # failures that are told in words


@dataclass
class Service:
    """What the clients got: seconds of each request, kept or new, and the failures in words."""

    latencies: list
    failures: list

    def report(self, run, name="ordinary requests"):
        """The figures, and that all was answered."""
        asked = len(self.latencies) + len(self.failures)
        run.figure(name, f"{len(self.latencies)} of {asked} answered")
        if self.latencies:
            run.figure("p50", milliseconds(quantile(self.latencies, 0.5)))
            run.figure("p99", milliseconds(quantile(self.latencies, 0.99)))
            run.figure("max", milliseconds(max(self.latencies)))
        run.expect(asked > 0 and not self.failures,
                   f"{name}: {len(self.failures)} of {asked} failed: "
                   + "; ".join(self.failures[:TOLD]))


class Ordinary_Clients:
    """with Ordinary_Clients(host) as clients: ...; clients.service tells afterwards.

    limit: seconds after which a request counts as failed.
    """

    def __init__(self, host, path="/small", port=8080, tls=False, limit=10):
        self._words = [sys.executable, "-B", os.path.abspath(__file__), host.address, str(port),
                       path, "tls" if tls else "plain", str(limit)]
        self.service = None

    def __enter__(self):
        folder = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        environment = dict(os.environ, PYTHONPATH=folder)
        self._process = subprocess.Popen(self._words, stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, env=environment)
        self._process.stdout.readline()  # it has begun
        return self

    def __exit__(self, *_):
        output, _ = self._process.communicate()
        self.service = Service(**json.loads(output))


class _Asker:
    def __init__(self, address, port, path, tls, limit):
        self._address, self._port, self._path, self._limit = address, port, path, limit
        self._context = None
        if tls:
            self._context = ssl.create_default_context()
            self._context.check_hostname = False
            self._context.verify_mode = ssl.CERT_NONE
        self._kept = None

    def _connection(self):
        if self._context is None:
            return http.client.HTTPConnection(self._address, self._port, timeout=self._limit)
        return http.client.HTTPSConnection(self._address, self._port, timeout=self._limit,
                                           context=self._context)

    def _get(self, connection):
        connection.request("GET", self._path)
        answer = connection.getresponse()
        body = answer.read()
        if answer.status != 200 or not body:
            raise ValueError(f"status {answer.status}, {len(body)} bytes")

    def over_kept(self):
        if self._kept is None:
            self._kept = self._connection()
        try:
            self._get(self._kept)
        except BaseException:
            self._kept = None
            raise

    def over_new(self):
        connection = self._connection()
        try:
            self._get(connection)
        finally:
            connection.close()


def _ask_until_told(asker):
    latencies, failures = [], []
    turn = 0
    while not select.select([sys.stdin], [], [], PAUSE)[0] or turn < AT_LEAST:
        begin = time.monotonic()
        manner = (asker.over_kept, asker.over_new)[turn % 2]
        try:
            manner()
            latencies.append(time.monotonic() - begin)
        except (OSError, http.client.HTTPException, ValueError) as error:
            failures.append(f"{manner.__name__} after {time.monotonic() - begin:.1f} s: {error!r}")
        turn += 1
    return {"latencies": latencies, "failures": failures}


def _main(address, port, path, transport, limit):
    asker = _Asker(address, int(port), path, transport == "tls", float(limit))
    asker.over_kept()
    print("begun", flush=True)
    print(json.dumps(_ask_until_told(asker)))


if __name__ == "__main__":
    _main(*sys.argv[1:])
