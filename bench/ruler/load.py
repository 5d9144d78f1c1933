"""Running the generator and reading what it measured."""

import json
import os
import re
import select
import subprocess
import time

from ruler.processes import Failure, read_tail
from ruler.setup import BENCH

LOAD = "bench_load"


def request_file(name):
    """A request head that lies in bench/requests."""
    return os.path.join(BENCH, "requests", name)


def start_load(setup, words, server, cores=None):
    """Starts the generator against a server; finish_load() gives its result."""
    argv = [setup.program(LOAD), words[0], *server.launch.target(), *words[1:]]
    for pid in server.pids():
        argv += ["--server-pid", str(pid)]
    log = setup.new_name("load.log")
    child = setup.processes.start(argv, cores or setup.load_cores, log, stdout=subprocess.PIPE)
    return child, log


def finish_load(setup, started, seconds):
    child, log = started
    output, status = setup.processes.finish(child, seconds)
    complaint = read_tail(log)
    if os.path.exists(log) and not complaint:
        os.unlink(log)
    if status != 0:
        raise Failure(f"the generator measured nothing: {complaint}")
    try:
        result = json.loads(output)
    except ValueError as error:
        raise Failure(f"the generator printed no result: {complaint}") from error
    if result["errors"] > 0:
        raise Failure(f"{result['errors']} wrong answers or broken connections "
                      f"beside {result['requests']} right ones")
    if result["requests"] == 0:
        raise Failure("no request was answered")
    return result


def run_load(setup, words, server, seconds=60.0, cores=None):
    """Runs the generator to its end, within a limit of time."""
    return finish_load(setup, start_load(setup, words, server, cores), seconds)


def run_wrk(setup, server, path, connections, seconds):
    """Requests per second as wrk counts them."""
    argv = [setup.tool("wrk"), "-t1", f"-c{connections}", f"-d{seconds}",
            f"http://127.0.0.1:{server.launch.port}{path}"]
    log = setup.new_name("wrk.log")
    child = setup.processes.start(argv, setup.load_cores, log, stdout=subprocess.PIPE)
    output, status = setup.processes.finish(child, seconds + 30)
    rate = re.search(r"Requests/sec:\s*([\d.]+)", output)
    if status != 0 or rate is None:
        raise Failure(f"wrk: {read_tail(log)}")
    if re.search(r"Socket errors|Non-2xx", output):
        raise Failure("wrk: " + " ".join(re.findall(r".*(?:Socket errors|Non-2xx).*", output)))
    return float(rate.group(1))


class Holder:
    """A generator that holds idle connections to a server."""

    def __init__(self, setup, server, words, seconds=180.0):
        self._processes = setup.processes
        log = setup.new_name("idle.log")
        argv = [setup.program(LOAD), words[0], *server.launch.target(), *words[1:]]
        self._child = setup.processes.start(argv, setup.load_cores, log, stdout=subprocess.PIPE)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if select.select([self._child.stdout], [], [], 0.5)[0]:
                if self._child.stdout.readline().strip() == b"ready":
                    return
                break
        self.stop()
        raise Failure(f"the generator does not hold them: {read_tail(log)}")

    def stop(self):
        self._processes.stop(self._child)
