"""Clients that send a large body to where it is refused get to read the refusal."""

import http.client
import os
import subprocess

from attacks import raw
from attacks.target import PORT, TLS_PORT, Target
from common.checks import Check
from common.process_figures import wait_until

SIZE = 10 << 20  # bytes of the body

# Path and method, and the status that tells: each is answered before the body is read.
REFUSALS = {
    "not found (files)": ("PUT", "/nothing", 405),
    "a file (files)": ("POST", "/small", 405),
    "GET with a body (files)": ("GET", "/nothing", 404),
    "no password (basic_auth)": ("POST", "/private/secret.txt", 401),
    "dot segments": ("POST", "/../echo", 400),
}


def _with_curl(host, tls, method, path, body):
    """Returns the status that curl saw, or what it complained about."""
    scheme, port = ("https", TLS_PORT) if tls else ("http", PORT)
    # "Expect:" leaves out the question whether the body is wanted, so that it is sent.
    done = subprocess.run(
        ["curl", "-sS", "-k", "--http1.1", "--path-as-is", "-X", method, "-H", "Expect:",
         "--data-binary", f"@{body}", "-o", "/dev/null", "-w", "%{http_code}", "--max-time", "60",
         f"{scheme}://{host.address}:{port}{path}"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        return f"curl: {done.stderr.strip()}"
    return int(done.stdout)


def _with_http_client(host, tls, method, path, body):
    """Returns the status that Python's client saw, or what it complained about."""
    if tls:
        connection = http.client.HTTPSConnection(host.address, TLS_PORT, timeout=60,
                                                 context=raw.ssl_context())
    else:
        connection = http.client.HTTPConnection(host.address, PORT, timeout=60)
    try:
        with open(body, "rb") as file:
            connection.request(method, path, file.read())
        answer = connection.getresponse()
        answer.read()
        return answer.status
    except (OSError, http.client.HTTPException) as error:
        return repr(error)
    finally:
        connection.close()


CLIENTS = {"curl": _with_curl, "http.client": _with_http_client}


def refusal_is_read(run):
    times = run.count(20, quick=1)  # of each kind
    with Target(tls=True) as host:
        body = os.path.join(host.folder, "body")
        with open(body, "wb") as file:
            file.write(os.urandom(1 << 20) * (SIZE >> 20))
        before = host.sockets()
        for client, ask in CLIENTS.items():
            for tls in (False, True):
                name = f"{client}, {'TLS' if tls else 'TCP'}"
                read, wrong = 0, []
                for kind, (method, path, status) in REFUSALS.items():
                    outcomes = [ask(host, tls, method, path, body) for _ in range(times)]
                    read += outcomes.count(status)
                    wrong += [f"{kind}: {outcome}" for outcome in outcomes if outcome != status]
                asked = times * len(REFUSALS)
                run.progress(f"{name}: {read} of {asked}")
                run.figure(name, f"{read} of {asked}")
                run.expect(read == asked, f"{name}: {asked - read} of {asked} did not read the "
                           "refusal: " + "; ".join(wrong[:2]))
        back = wait_until(lambda: host.sockets() <= before, 10)
        run.expect(back is not None, f"{host.sockets()} sockets, {before} before")


def lingering_ends(run):
    """Who goes on sending for ever, or falls silent, is cut in the end; others do not wait."""
    count = run.count(200, quick=10)
    head = b"POST /small HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000000000\r\n\r\n"
    with Target() as host:
        before = host.sockets()
        clients = [raw.connect(host) for _ in range(count)]
        try:
            for client in clients:
                client.sendall(head + b"x" * 10000)
            answers = [raw.Answer_Reader(client).read().status for client in clients]
            run.figure("refused", f"{answers.count(405)} of {count}")
            run.expect(answers.count(405) == count, f"{count - answers.count(405)} of {count} "
                       "did not read the refusal")
            back = wait_until(lambda: host.sockets() <= before, 20)
            run.figure("silent ones cut after", "never" if back is None else f"{back:.1f} s")
            run.expect(back is not None, "connections of clients that fell silent are still open "
                       "after 20 s")
        finally:
            for client in clients:
                client.close()


CHECKS = [
    Check("refusal-is-read", "10 MiB sent to where they are refused, by curl and http.client",
          refusal_is_read),
    Check("lingering-ends", "clients that never end a body that was refused", lingering_ends),
]
