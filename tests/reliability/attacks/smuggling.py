"""Requests whose end two readers may see in two places.

Behind each comes another request. A row that is ambiguous must be refused with its connection, so
that nothing is read behind it; one that is not must be read to its only end.
"""

from dataclasses import dataclass

from attacks import raw
from attacks.desync import SMUGGLED, is_probes_own, probe, smuggled
from attacks.target import PORT, TLS_PORT, Target
from common.checks import Check

REFUSED = "refused"  # no answer, or a refusal, and the connection ends
FRAMED = "framed"    # answered, and the request behind it, too


@dataclass
class Row:
    """data: one request. body: what its plug-in must have seen of it when it is framed."""

    name: str
    outcome: str
    data: bytes
    body: bytes = b""


def _post(fields, body, version=b"1.1"):
    return (b"POST /echo/row HTTP/" + version + b"\r\nHost: x\r\n" + b"".join(
        field + b"\r\n" for field in fields) + b"\r\n" + body)


def _counted(name, value, outcome=REFUSED, body=b"12345"):
    return Row(f"Content-Length: {name}", outcome, _post([b"Content-Length: " + value], body),
               body if outcome == FRAMED else b"")


def _coded(name, field, outcome=REFUSED):
    """A body that is chunked for some, while others take it for the next request."""
    return Row(name, outcome, _post([field], b"5\r\n12345\r\n0\r\n\r\n"),
               b"12345" if outcome == FRAMED else b"")


def _chunks(name, data, outcome=REFUSED, body=b""):
    return Row(f"chunks: {name}", outcome, _post([b"Transfer-Encoding: chunked"], data), body)


def rows():
    hidden = smuggled(7)
    clte = b"0\r\n\r\n" + hidden
    return [
        # Two lengths (RFC 9112, section 6.3).
        Row("CL and TE", REFUSED, _post([b"Content-Length: %d" % len(clte),
                                         b"Transfer-Encoding: chunked"], clte)),
        Row("TE and CL", REFUSED, _post([b"Transfer-Encoding: chunked", b"Content-Length: 4"],
                                        b"%x\r\n" % len(hidden) + hidden + b"\r\n0\r\n\r\n")),
        Row("two different CL", REFUSED, _post([b"Content-Length: 5", b"Content-Length: 6"],
                                               b"123456")),
        Row("CL 0 and CL", REFUSED, _post([b"Content-Length: 0",
                                           b"Content-Length: %d" % len(hidden)], hidden)),
        Row("TE in HTTP/1.0", REFUSED, _post([b"Transfer-Encoding: chunked"],
                                             b"5\r\n12345\r\n0\r\n\r\n", b"1.0")),
        _counted("5, 6", b"5, 6"), _counted("+5", b"+5"), _counted("-5", b"-5"),
        _counted("empty", b""), _counted("0x5", b"x5"), _counted("1e1", b"e1"),
        _counted("beyond 64 bits", b"99999999999999999999"),
        _counted("2^64 + 5", b"18446744073709551621"),
        _counted("quoted", b'"5"'), _counted("no digits", b"five"), _counted(", 5", b", 5"),
        _counted("5", b"5", FRAMED), _counted("005", b"005", FRAMED),
        _counted("blanks around", b"\t 5 \t", FRAMED),
        # Names and lines.
        Row("blank before the colon", REFUSED, _post([b"Content-Length : 5"], b"12345")),
        Row("tab before the colon", REFUSED, _post([b"Transfer-Encoding\t: chunked"],
                                                   b"5\r\n12345\r\n0\r\n\r\n")),
        Row("blank before the name", REFUSED, _post([b" Content-Length: 5"], b"12345")),
        Row("continuation line", REFUSED, _post([b"X: y\r\n Content-Length: 5"], b"12345")),
        Row("continuation of TE", REFUSED, _post([b"Transfer-Encoding:\r\n chunked"],
                                                 b"5\r\n12345\r\n0\r\n\r\n")),
        Row("bare LF", REFUSED, _post([b"X: y\nContent-Length: 5"], b"12345")),
        Row("bare CR", REFUSED, _post([b"X: y\rContent-Length: 5"], b"12345")),
        Row("LF LF", REFUSED, b"POST /echo/row HTTP/1.1\nHost: x\nContent-Length: 0\n\n"),
        Row("NUL in a value", REFUSED, _post([b"X: y\0z"], b"")),
        Row("NUL in a name", REFUSED, _post([b"Content-Length\0: 5"], b"12345")),
        Row("no colon", REFUSED, _post([b"Content-Length 5"], b"12345")),
        Row("empty name", REFUSED, _post([b": y"], b"")),
        Row("byte above 127 in a name", REFUSED, _post([b"Content-Length\xa0: 5"], b"12345")),
        Row("two Host", REFUSED, _post([b"Host: y", b"Content-Length: 0"], b"")),
        Row("two blanks in the request line", REFUSED,
            b"POST  /echo/row HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n"),
        Row("tab in the request line", REFUSED,
            b"POST\t/echo/row HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n"),
        # Transfer codings: what is not exactly chunked has no end that both see.
        _coded("TE: xchunked", b"Transfer-Encoding: xchunked"),
        _coded("TE: chunked, identity", b"Transfer-Encoding: chunked, identity"),
        _coded("TE: identity", b"Transfer-Encoding: identity"),
        _coded("TE: gzip, chunked", b"Transfer-Encoding: gzip, chunked"),
        _coded("TE: chunked, chunked", b"Transfer-Encoding: chunked, chunked"),
        _coded("TE: \\x0bchunked", b"Transfer-Encoding: \x0bchunked"),
        _coded("TE: \"chunked\"", b'Transfer-Encoding: "chunked"'),
        _coded("TE: chunked;a=b", b"Transfer-Encoding: chunked;a=b"),
        _coded("TE: chunked twice", b"Transfer-Encoding: chunked\r\nTransfer-Encoding: x"),
        _coded("TE: empty", b"Transfer-Encoding: "),
        _coded("TE: chunked", b"Transfer-Encoding: chunked", FRAMED),
        _coded("TE: CHUNKED", b"Transfer-Encoding: CHUNKED"),
        # Chunks (RFC 9112, section 7.1).
        _chunks("junk behind a size", b"5 x\r\n12345\r\n0\r\n\r\n"),
        _chunks("blank behind a size", b"5 \r\n12345\r\n0\r\n\r\n"),
        _chunks("0x5", b"0x5\r\n12345\r\n0\r\n\r\n"), _chunks("+5", b"+5\r\n12345\r\n0\r\n\r\n"),
        _chunks("-5", b"-5\r\n12345\r\n0\r\n\r\n"),
        _chunks("size beyond 64 bits", b"10000000000000005\r\n12345\r\n0\r\n\r\n"),
        _chunks("LF behind a size", b"5\n12345\r\n0\r\n\r\n"),
        _chunks("CR without LF behind a size", b"5\rX12345\r\n0\r\n\r\n"),
        _chunks("LF in an extension", b"5;a\n12345\r\n0\r\n\r\n"),
        _chunks("LF behind the data", b"5\r\n12345\n0\r\n\r\n"),
        _chunks("more data than the size", b"5\r\n1234567\r\n0\r\n\r\n"),
        _chunks("less data than the size", b"7\r\n12345\r\n0\r\n\r\n"),
        _chunks("LF LF at the end", b"5\r\n12345\r\n0\n\n"),
        _chunks("proper", b"5\r\n12345\r\n0\r\n\r\n", FRAMED, b"12345"),
        _chunks("with an extension", b"5;a=b\r\n12345\r\n0;c\r\n\r\n", FRAMED, b"12345"),
        _chunks("leading zeros", b"0005\r\n12345\r\n000\r\n\r\n", FRAMED, b"12345"),
    ]


def _judge(row, connection):
    """Returns what is wrong with the answers to a row and the request behind it, or None."""
    try:
        connection.sendall(row.data + probe(42))
    except OSError:
        pass
    reader = raw.Answer_Reader(connection)
    first = reader.read()
    if SMUGGLED in first.body + reader.left():
        return "the body was served as a request"
    if row.outcome == FRAMED:
        seen = first.body.partition(b"\n\n")[2]
        if first.status != 200 or seen != row.body:
            return f"status {first.status}, body {seen!r}"
        follow = reader.read()
        return None if is_probes_own(follow, 42) else f"then status {follow.status}"
    if first.status == 200 and first.whole:
        return f"answered with 200 and {first.body.partition(bytes(2))[0][-40:]!r}"
    follow = reader.read()
    if follow.status != 0:
        return f"status {first.status}, and what came behind it was answered with {follow.status}"
    return None


def smuggling(run):
    with Target(tls=True) as host:
        wrong = []
        tried = rows()
        for tls in (False, True):
            for row in tried:
                connection = raw.connect_tls(host, TLS_PORT, limit=2) if tls else \
                    raw.connect(host, PORT, limit=2)
                with connection:
                    fault = _judge(row, connection)
                if fault is not None:
                    wrong.append(f"{row.name}: {fault}")
        framed = sum(row.outcome == FRAMED for row in tried)
        run.figure("rows", f"{len(tried) - framed} ambiguous, {framed} proper, TCP and TLS")
        run.expect(not wrong, f"{len(wrong)} wrong: " + "; ".join(wrong))
        run.expect(host.lives(), "the host has ended")


CHECKS = [Check("smuggling", "requests whose end two readers may see in two places", smuggling)]
