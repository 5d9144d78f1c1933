"""The server that is attacked: the real host with every bundled plug-in."""

import os
import subprocess

from common import process_figures
from host_program import Host_Program

USER, PASSWORD = "anna", "correct horse"
SECRET = b"KEPT-FROM-STRANGERS-51c2a7"   # in every file below /private
OUTSIDE = b"OUTSIDE-OF-THE-ROOT-9e04d1"  # in files beside the root
# Sizes of files: the loop sends the first two, a thread the others; none of the sockets' buffers
# takes the last one whole.
SMALL, MEDIUM, LARGE, HUGE = 64, 200 << 10, 1 << 20, 16 << 20
PORT, TLS_PORT = 8080, 8443

HTTP = ({"uri": "/", "dll": "httpd_files", "init": "_make_Files", "params": "--root {folder}/site"},
        {"uri": "/echo", "dll": "httpd_echo", "init": "_make_Echo"})
WEBSOCKET = ({"uri": "/ws/echo", "dll": "httpd_ws_echo", "init": "_make_WS_Echo"},
             {"uri": "/ws/thread", "dll": "httpd_ws_echo", "init": "_make_WS_Echo",
              "params": "--thread"},
             {"uri": "/chat", "dll": "httpd_ws_chat", "init": "_make_WS_Chat"})
GUARD = ({"uri": "/private", "dll": "httpd_basic_auth", "init": "_make_Basic_Auth",
          "params": "--file {folder}/users --realm Attacked"},)


def crypt(password):
    return subprocess.run(["openssl", "passwd", "-6", "-salt", "attacked", password], check=True,
                          capture_output=True, text=True).stdout.strip()


class Target(Host_Program):
    """A host on TCP, and on TLS when `tls` says so. service: further options of the service."""

    def __init__(self, service=(), tls=False, wrapper=(), log_level="info", environment=None):
        listen = ("{address}:%d" % PORT,) + (("{address}:%ds" % TLS_PORT,) if tls else ())
        super().__init__(listen=listen, http=HTTP, websocket=WEBSOCKET, authenticators=GUARD,
                         service=service, tls=tls, wrapper=wrapper, log_level=log_level,
                         environment=environment)
        try:
            self._make_site()
        except BaseException:
            self._discard()
            raise

    def _make_site(self):
        self._write_file("users", f"{USER}:{crypt(PASSWORD)}\n".encode())
        self._write_file("outside.txt", OUTSIDE)
        self._write_file("site-beside/outside.txt", OUTSIDE)
        self._write_file("site/index.html", b"index")
        self._write_file("site/small", b"s" * SMALL)
        self._write_file("site/medium", b"m" * MEDIUM)
        self._write_file("site/large", b"l" * LARGE)
        self._write_file("site/huge", b"h" * HUGE)
        self._write_file("site/public/note.txt", b"public")
        self._write_file("site/.hidden/outside.txt", OUTSIDE)
        self._write_file("site/private/secret.txt", SECRET)
        self._write_file("site/private/index.html", SECRET)
        self._write_file("site/private/deep/secret.txt", SECRET)

    def _write_file(self, name, content):
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)

    @property
    def pid(self):
        return self.process.pid

    def figures(self):
        return process_figures.figures(self.pid)

    def descriptors(self):
        return process_figures.descriptors(self.pid)

    def sockets(self):
        """Descriptors that are sockets, listeners among them; files that are kept open are not."""
        return sum(name.startswith("socket:") for name in
                   process_figures.descriptor_names(self.pid))

    def lives(self):
        return self.process.poll() is None
