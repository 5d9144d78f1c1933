"""The real host program, run as a child process.

The environment tells where it is: HTTPD_TEST_HOST is the path of the program,
HTTPD_TEST_LIBRARY_DIR the folder of the plug-ins.
"""

import itertools
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading

LIMIT = 30  # seconds for anything that is waited for

_addresses = itertools.count()


def own_loopback_address():
    """An address of 127/8 that no other process of the suite uses."""
    number = (os.getpid() & 0x3FFFFF) | 0x400000
    number = (number + (next(_addresses) << 19)) & 0xFFFFFF
    return "127.%d.%d.%d" % (number >> 16, number >> 8 & 0xFF, number & 0xFF)


def library(name):
    """Path of a plug-in's library, bundled or of the tests, from its name without "lib"."""
    return os.path.join(os.environ["HTTPD_TEST_LIBRARY_DIR"], "lib%s.so" % name)


def keep_log(lines):
    """Adds log lines to a file of this process where HTTPD_TEST_LOG_DIR names a folder, for
    scripts/check-messages to look through."""
    folder = os.environ.get("HTTPD_TEST_LOG_DIR")
    if folder:
        with open(os.path.join(folder, "%d.log" % os.getpid()), "a", encoding="utf-8") as file:
            file.writelines(line + "\n" for line in lines)


class Host_Program:
    """One host on an address of its own. It can be started again after its end.

    listen: addresses in the service's syntax; "{address}" and "{folder}" are replaced.
    http, websocket, authenticators: records of the plug-in files, with a library's name as "dll".
    service: further options of the service; "{folder}" is replaced in them and in "params".
    host_options: further options of the host. tls: make a certificate and give it to the host.
    environment: further variables. wrapper: words that stand before the program (prlimit ...).
    """

    def __init__(self, listen=("{address}:8080",), http=(), websocket=(), authenticators=(),
                 service=(), host_options=(), tls=False, log_level="debug", environment=None,
                 wrapper=()):
        self.address = own_loopback_address()
        self.folder = tempfile.mkdtemp(prefix="httpd-host-")
        self.process = None
        self._lines = []
        self._changed = threading.Condition()
        self._listen = listen
        # No client has a certificate: reading the system's authorities would take a while.
        self._environment = dict(os.environ, SSL_CERT_FILE="/dev/null", SSL_CERT_DIR="/dev/null",
                                 **(environment or {}))
        try:
            self._words = [*wrapper, os.environ["HTTPD_TEST_HOST"], "--log-level", log_level,
                           *host_options]
            if tls:
                self._words += self._make_certificate()
            self._words += ["--", *self._service_words(http, websocket, authenticators, service)]
        except BaseException:
            self._discard()
            raise

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.close()

    def _service_words(self, http, websocket, authenticators, service):
        words = []
        for address in self._listen:
            words += ["-p", self._fill(address)]
        for option, name, records in (("-f", "http.json", http), ("-w", "websocket.json", websocket),
                                      ("-a", "authenticators.json", authenticators)):
            if records:
                words += [option, self._write(name, records)]
        return words + [self._fill(word) for word in service]

    def _fill(self, text):
        return text.replace("{address}", self.address).replace("{folder}", self.folder)

    def _write(self, name, records):
        path = os.path.join(self.folder, name)
        filled = []
        for record in records:
            filled.append(dict(record, dll=library(record["dll"])))
            if "params" in record:
                filled[-1]["params"] = self._fill(record["params"])
        with open(path, "w", encoding="ascii") as file:
            json.dump(filled, file)
        return path

    def _make_certificate(self):
        self.certificate = os.path.join(self.folder, "certificate.pem")
        key = os.path.join(self.folder, "key.pem")
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "1", "-subj", "/CN=test", "-addext",
             "subjectAltName=IP:" + self.address, "-keyout", key, "-out", self.certificate],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return ["--tls-certificate", self.certificate, "--tls-private-key", key]

    def start(self):
        """Starts the host, with an empty log, and waits until it listens everywhere."""
        self._lines = []
        self.process = subprocess.Popen(self._words, stdin=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, env=self._environment)
        self._reader = threading.Thread(target=self._read_log)
        self._reader.start()
        try:
            self.wait_for_log(" is listening.", len(self._listen))
        except BaseException:
            self.kill()
            raise

    def _read_log(self):
        with self.process.stderr as log:
            for line in log:
                with self._changed:
                    self._lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                    self._changed.notify_all()
        keep_log(self._lines)
        with self._changed:
            self._lines.append(None)  # its end
            self._changed.notify_all()

    def _discard(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        with self._changed:
            return [line for line in self._lines if line is not None]

    def wait_for_log(self, text, times=1):
        """Waits until `times` lines hold `text`."""
        def enough():
            return sum(text in line for line in self._lines if line is not None) >= times

        with self._changed:
            self._changed.wait_for(lambda: enough() or None in self._lines, LIMIT)
            if not enough():
                raise AssertionError("not logged %d times: %s\n%s" % (
                    times, text, "\n".join(line or "(end)" for line in self._lines)))

    def end(self, seconds=60):
        """Ends the host by SIGTERM, and by SIGKILL when that does not do. Returns its status."""
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self._reader.join()
        return status

    def kill(self):
        """Ends the host by SIGKILL."""
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.process is not None:
            self._reader.join()

    def close(self):
        """Ends the host if it runs, however it can, and removes its folder."""
        if self.process is not None and self.process.poll() is None:
            self.end()
        self._discard()

    def tcp(self, port=8080):
        connection = socket.create_connection((self.address, port), LIMIT)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection
