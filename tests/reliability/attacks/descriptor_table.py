"""More clients than the server may have descriptors."""

import socket
import time

from attacks import raw
from attacks.target import PORT, Target
from common.checks import Check
from common.process_figures import Processor_Share, wait_until

LIMIT = 64  # descriptors of the host
CLIENTS = 500
MOST_LOG_LINES = 200
MOST_OF_A_CORE = 0.05


def _connect_all(address, count):
    clients = []
    for _ in range(count):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex((address, PORT))
        clients.append(client)
    return clients


def _is_served(host):
    """Of a client that does not wait until its system repeats a connection attempt."""
    try:
        with raw.connect(host, limit=0.2) as connection:
            return raw.ask(connection, b"GET /small HTTP/1.1\r\nHost: x\r\n\r\n").status == 200
    except OSError:
        return False


def descriptor_table(run):
    seconds = run.count(15, quick=1)
    with Target(wrapper=("prlimit", f"--nofile={LIMIT}:{LIMIT}")) as host:
        lines = len(host.log())
        clients = _connect_all(host.address, CLIENTS)
        wait_until(lambda: host.descriptors() >= LIMIT - 1, 5)
        share = Processor_Share(host.pid)
        held = host.descriptors()
        time.sleep(seconds)  # what the server does in this time is what is measured
        used = share.so_far()
        logged = len(host.log()) - lines
        for client in clients:
            client.close()
        begin = time.monotonic()
        back = wait_until(lambda: _is_served(host), 10)
        run.figure("descriptors in use", f"{held} of {LIMIT}")
        run.figure(f"in {seconds} s", f"{used * 100:.1f} % of a core, {logged} log lines")
        run.figure("back after", "never" if back is None else f"{time.monotonic() - begin:.2f} s")
        run.expect(held >= LIMIT - 2, f"the table was not full: {held} of {LIMIT}")
        run.expect(0 < logged <= MOST_LOG_LINES, f"{logged} log lines")
        run.expect(run.sanitized or used <= MOST_OF_A_CORE, f"{used * 100:.1f} % of a core")
        run.expect(back is not None and back <= 1, "not back within a second")
        run.expect(host.end() == 0, "the host did not end with status 0")


CHECKS = [Check("descriptor-table", "500 clients for a server that may have 64 descriptors",
                descriptor_table)]
