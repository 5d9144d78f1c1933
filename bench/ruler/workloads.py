"""All workloads: who takes part, how the load is made, and what is to be reached."""

from ruler.counts import Column, Counts, Start, idle_bytes, instructions, system_calls
from ruler.figures import Goal, Spread
from ruler.load import request_file
from ruler.rounds import Rounds
from ruler.servers import CEILING, OURS, ceiling, h2o, lighttpd, nginx, ours, peer

TEXT_PATH = ["--path", "/hello.txt"]
GET = ["get", *TEXT_PATH]
MIB = 1 << 20
MANY = 19500  # connections; a process has 20,000 descriptors on common machines


def cpu(limit, against=CEILING):
    return Goal("cpu", limit, against)


def all_peers():
    return [nginx(), h2o(), lighttpd(), peer("microhttpd"), peer("evhttp"), peer("beast")]


def get_workloads():
    browser = ["get", "--head", request_file("browser.txt")]
    pipelined = ["pipelined", *TEXT_PATH, "--depth", "16", "--connections", "64"]
    close = ["close", *TEXT_PATH, "--connections", "64"]
    return [
        Rounds("get-64", "GET, 13-byte answer, keep-alive, 64 connections",
               [*GET, "--connections", "64"],
               [ceiling("get"), ours(), *all_peers()], [cpu(1.08)], wrk_path="/hello.txt"),
        Rounds("get-1", "GET, 1 connection, server and load on one core",
               [*GET, "--connections", "1"],
               [ceiling("get"), ours(), *all_peers()], [cpu(1.07)], same_core=True),
        # libmicrohttpd has stalled with so many connections.
        Rounds("get-256", "GET, 256 connections",
               [*GET, "--connections", "256"],
               [ceiling("get"), ours(), nginx(), h2o(), lighttpd(), peer("evhttp"), peer("beast")],
               [cpu(1.12)]),
        Rounds("get-64-idle-5000", "GET, 64 connections beside 5,000 idle ones",
               [*GET, "--connections", "64"],
               [ceiling("get"), ours(), nginx(connections=8000), h2o(connections=8000),
                lighttpd(connections=8000)], [cpu(1.12)], idle=5000),
        Rounds("browser-64", "GET with ten browser headers (558 bytes), 64 connections",
               [*browser, "--connections", "64"],
               [ceiling("get"), ours(), *all_peers()], [cpu(1.13)]),
        Rounds("pipelined-16", "GET pipelined by 16, 64 connections, one send per answer", pipelined,
               [ceiling("pipelined", request=GET), ours(), nginx(), h2o(), lighttpd()],
               [cpu(1.10), cpu(1.00, "nginx"), cpu(1.00, "h2o"), cpu(1.00, "lighttpd")]),
        Rounds("close-64", "A connection per request, 64 at a time", close,
               [ceiling("close"), ours(), *all_peers()],
               [cpu(1.20), Goal("throughput", 1.00, "nginx", at_least=True)]),
    ]


def file_workloads():
    """The goals refer to nginx with its built-in defaults, which copy; with sendfile, and with its
    cache of open files as well, it takes part beside that."""
    def files(key, title, name, connections, limit):
        return Rounds(key, title, ["get", "--path", f"/files/{name}", "--connections", connections],
                      [ceiling("file", "--file", f"@www/files/{name}"), ours(),
                       nginx(sendfile=False), nginx("nginx sendfile"),
                       nginx("nginx sendfile, cache", file_cache=True), lighttpd(), h2o(),
                       peer("microhttpd", "--files", "@www")], [cpu(limit, "nginx")])
    return [
        files("file-1k", "File of 1 KiB, 64 connections", "1k.bin", "64", 0.50),
        files("file-100k", "File of 100 KiB, 16 connections", "100k.bin", "16", 0.72),
        files("file-10m", "File of 10 MiB, 2 connections", "10m.bin", "2", 0.50),
    ]


def upload_workloads():
    counted = ["upload", "--path", "/upload", "--body", str(MIB), "--connections", "4"]
    chunked = [*counted, "--chunk", "8192"]
    large = ("--http-receive-buffer-size", "64k")

    def upload(key, title, load, words, buffer, goal):
        return Rounds(key, title, load,
                      [ceiling("upload", "--buffer", str(buffer), request=load), ours(*words),
                       nginx(), peer("microhttpd"), peer("evhttp"), peer("beast")], [goal])
    return [
        upload("upload-counted", "Upload of 1 MiB, counted, 4 connections, 64 KiB buffer",
               counted, large, 65536, cpu(1.08)),
        upload("upload-chunked", "Upload of 1 MiB, chunks of 8 KiB, 4 connections, 64 KiB buffer",
               chunked, large, 65536, cpu(1.10)),
        upload("upload-counted-default", "Upload of 1 MiB, counted, default buffer of 8 KiB",
               counted, (), 8192, cpu(0.80, "nginx")),
        upload("upload-chunked-default", "Upload of 1 MiB, chunks of 8 KiB, default buffer of 8 KiB",
               chunked, (), 8192, cpu(0.80, "nginx")),
    ]


def tls_workloads():
    def contenders(kind):
        return [ceiling(kind, tls=True), ours(tls=True), nginx(tls=True), h2o(tls=True),
                lighttpd(tls=True)]
    return [
        Rounds("tls-64", "GET over TLS 1.3, keep-alive, 64 connections",
               ["tls", *TEXT_PATH, "--connections", "64"], contenders("tls"), [cpu(1.01)]),
        Rounds("tls-close", "TLS 1.3, full handshake and one request, 64 at a time",
               ["tls-close", *TEXT_PATH, "--connections", "64"], contenders("tls-close"),
               [cpu(1.02)]),
    ]


def websocket_workloads():
    def echo(key, title, size, limit, buffer=None):
        words = ("--http-receive-buffer-size", buffer) if buffer else ()
        return Rounds(key, title,
                      ["websocket", "--path", "/ws", "--message", str(size), "--connections", "64"],
                      [ceiling("websocket", "--buffer", str(256 * 1024)), ours(*words),
                       peer("websockets"), peer("beast")], [cpu(limit)], per="message")
    return [
        echo("ws-16", "WebSocket echo of 16 bytes, 64 connections", 16, 1.05),
        echo("ws-1k", "WebSocket echo of 1 KiB, 64 connections", 1024, 1.05),
        echo("ws-64k-256k", "WebSocket echo of 64 KiB, 64 connections, 256 KiB buffer", 65536, 1.10,
             "256k"),
        echo("ws-64k-default", "WebSocket echo of 64 KiB, 64 connections, default buffer of 8 KiB",
             65536, 4.2),
    ]


def other_rounds():
    return [
        Rounds("unix-64", "GET over a UNIX-domain socket, 64 connections",
               [*GET, "--connections", "64"],
               [ceiling("get", unix=True), ours(unix=True), nginx(unix=True)], [cpu(1.15)]),
        Rounds("thread-64", "GET by a plug-in in its own thread, 64 connections",
               [*GET, "--connections", "64"],
               [ceiling("threads"), ours(thread=True), peer("microhttpd", "--threads")],
               [cpu(1.05)]),
        Rounds("log-64", "GET with the access log on, to the same server without",
               [*GET, "--connections", "64"],
               [ours(), ours(name="httpd with log", log=True), nginx(),
                nginx("nginx with log", log=True)],
               [Goal("cpu", 1.20, OURS, contender="httpd with log")],
               against=OURS, pairs={"nginx with log": "nginx", "nginx": "nginx"},
               base_text="without log"),
        Scale("scale-2", "GET with 2 loops on 2 cores to 1 loop, a generator on both cores",
              [*GET, "--connections", "32"],
              [ours(), ours(name="httpd 2 loops", loops=2), nginx(),
               nginx("nginx 2 workers", workers=2)], [],
              against=OURS, pairs={"nginx 2 workers": "nginx", "nginx": "nginx"},
              base_text="1 loop", both_cores=True),
    ]


class Scale(Rounds):
    """The goal is a ratio of ratios: this server's gain by a second loop to nginx's."""

    def measure(self, setup, options, say):
        result = super().measure(setup, options, say)
        result["by_throughput"] = True
        gains = {row["contender"]: row["throughput_ratio"] for row in result["rows"]}
        mine, other = gains.get("httpd 2 loops"), gains.get("nginx 2 workers")
        limit = other["median"] if other else 1.0
        goal = Goal("value", limit, column="throughput of 2 loops to 1 (nginx's gain is the limit)",
                    at_least=True)
        result["goals"] = [goal.judge(Spread(**mine) if mine and other else None)]
        return result


def counted_workloads():
    single = nginx(master=False)
    browser = ["get", "--head", request_file("browser.txt")]
    websocket = ["websocket", "--path", "/ws", "--message", "16"]
    gets, browsers, messages = "per GET", "per browser GET", "per 16-byte WebSocket message"
    get_64 = [*GET, "--connections", "64"]
    start = Start(15, "/hello.txt")
    starters = [ours(), nginx(), lighttpd(), h2o()]
    return [
        Counts("instructions", "User-space instructions of the whole server (callgrind)",
               [Column(gets, instructions(GET), [ours(), single]),
                Column(browsers, instructions(browser), [ours(), single]),
                Column(messages, instructions(websocket), [ours(), peer("websockets")])],
               [Goal("value", 2000, column=gets), Goal("value", 4500, column=browsers),
                Goal("value", 600, column=messages)]),
        Counts("syscalls", "System calls of the whole server (strace)",
               [Column("per GET, 64 connections", system_calls(get_64),
                       [ceiling("get"), ours(), *all_peers()])],
               [Goal("value", 2.1, column="per GET, 64 connections")]),
        memory_workload(),
        Counts("start", "Start to the first answer",
               [Column("ms", start.milliseconds, starters),
                Column("resident MiB then", start.resident, starters)],
               [Goal("value", 10, column="ms"), Goal("value", 12, column="resident MiB then")]),
    ]


def memory_workload():
    idle = ["idle", *TEXT_PATH]
    plain = [ours(), nginx(connections=MANY + 400), h2o(connections=MANY + 400),
             lighttpd(connections=MANY), peer("microhttpd"), peer("evhttp"), peer("beast")]
    sockets = [ours(), peer("websockets"), peer("beast")]
    secure = [ceiling("tls", tls=True), ours(tls=True), nginx(tls=True, connections=MANY + 400),
              h2o(tls=True, connections=MANY + 400), lighttpd(tls=True, connections=MANY)]
    kinds = [
        ("keep-alive", idle, GET, plain, 2048),
        ("WebSocket", ["idle", "--websocket", "--path", "/ws"],
         ["websocket", "--path", "/ws"], sockets, 2048),
        ("TLS", [*idle, "--tls"], ["tls", *TEXT_PATH], secure, 14848),
    ]
    columns, goals = [], []
    for name, words, warm, contenders, limit in kinds:
        for count in (1000, MANY):
            title = f"{name} {count:,}"
            columns.append(Column(title, idle_bytes(count, words, warm), contenders, count))
            goals.append(Goal("value", limit, column=title))
    return Counts("memory", "Resident bytes per idle connection, by number of connections", columns,
                  goals)


def all_workloads():
    return [*get_workloads(), *file_workloads(), *upload_workloads(), *tls_workloads(),
            *websocket_workloads(), *other_rounds(), *counted_workloads()]
