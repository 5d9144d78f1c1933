"""Clients of every kind that ask without a pause, each in a thread, while the server is started,
stopped and killed under them. What they get must be whole answers, or the end of the connection.
"""

import os
import socket
import threading
from dataclasses import dataclass, field

from strict_client import LIMIT, Ended, Strict_Client, Wrong, tls_context
from strict_websocket import Strict_WebSocket

WARM = 3  # answers that each client has had before something is done to the server
WARM_SLOW = 1

_CONTEXT = tls_context()


def connect(host, load):
    """A socket that is connected, or None where nobody listens."""
    connection = socket.socket(socket.AF_UNIX if load.where == "unix" else socket.AF_INET)
    try:
        connection.settimeout(LIMIT)
        if load.slow:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16 * 1024)
        if load.where == "unix":
            connection.connect(os.path.join(host.folder, "socket"))
            return connection
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect((host.address, 8443 if load.where == "tls" else 8080))
        return _CONTEXT.wrap_socket(connection) if load.where == "tls" else connection
    except OSError:
        connection.close()
        return None


@dataclass
class Tally:
    """answered: whole answers. cut: the connection ended within one. lost: before its first byte.
    wrong: what should not have been, told."""

    answered: int = 0
    cut: int = 0
    lost: int = 0
    wrong: list = field(default_factory=list)

    def add(self, other):
        self.answered += other.answered
        self.cut += other.cut
        self.lost += other.lost
        self.wrong += other.wrong


class Client(threading.Thread):
    """Asks until the crowd leaves."""

    def __init__(self, crowd, load):
        super().__init__()
        self.tally = Tally()
        self._crowd = crowd
        self._load = load

    def run(self):
        try:
            while not self._crowd.leaving:
                connection = connect(self._crowd.host, self._load)
                if connection is None:
                    self._crowd.wait_for_server()
                else:
                    self._use(connection)
        except Exception as error:  # pylint: disable=broad-except
            self._note("%s: %s" % (type(error).__name__, error))

    def _note(self, text):
        self.tally.wrong.append("%s: %s" % (self._load.name, text))

    def _use(self, connection):
        client = None
        try:
            if self._load.websocket:
                client = Strict_WebSocket(connection, self._load.websocket)
            else:
                client = Strict_Client(connection, piece=8192 if self._load.slow else 256 * 1024)
            while not self._crowd.leaving:
                self._ask(client)
                self._crowd.answered(self._load.name)
        except Ended as end:
            if not (isinstance(client, Strict_Client) and client.ends):
                self.tally.cut += end.begun
                self.tally.lost += not end.begun
            if isinstance(client, Strict_Client) and not self._load.body.startswith(client.body):
                self._note("a cut answer holds something else")
        except Wrong as problem:
            self._note(str(problem))
        finally:
            connection.close()

    def _ask(self, client):
        if self._load.websocket:
            client.echo(self._load.body)
            self.tally.answered += 1
            return
        client.ask(self._load.request * self._load.at_once)
        for _ in range(self._load.at_once):
            status, body = client.answer()
            if status != 200 or body != self._load.body:
                raise Wrong("status %d, %d bytes" % (status, len(body)))
            self.tally.answered += 1


class Crowd:
    """One client for each load, until leave(). A context manager that leaves at its end."""

    def __init__(self, host, kinds):
        self.host = host
        self.leaving = False
        self._changed = threading.Condition()
        self._open = True
        self._answers = dict.fromkeys((load.name for load in kinds), 0)
        self._wanted = {load.name: WARM_SLOW if load.slow else WARM for load in kinds}
        self._clients = [Client(self, load) for load in kinds]
        for client in self._clients:
            client.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.leave()

    def answered(self, name):
        with self._changed:
            self._answers[name] += 1
            self._changed.notify_all()

    def wait_until_warm(self, seconds=LIMIT):
        """Until each client has had some answers since the last call. Returns those that have
        not."""
        with self._changed:
            def cold():
                return [name for name, count in self._answers.items()
                        if count < self._wanted[name]]
            self._changed.wait_for(lambda: not cold(), seconds)
            missing = cold()
            self._answers = dict.fromkeys(self._answers, 0)
            return missing

    def server_is(self, is_open):
        """Clients that are refused wait while it is not open."""
        with self._changed:
            self._open = is_open
            self._changed.notify_all()

    def wait_for_server(self):
        with self._changed:
            # A little while also where it is open: a listener opens after another.
            self._changed.wait_for(lambda: self.leaving, 0.002)
            self._changed.wait_for(lambda: self._open or self.leaving)

    def leave(self):
        """Ends the clients. Returns the Tally of all. May be called again."""
        with self._changed:
            self.leaving = True
            self._changed.notify_all()
        tally = Tally()
        for client in self._clients:
            client.join()
            tally.add(client.tally)
        return tally
