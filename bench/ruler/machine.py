"""What was measured, and on what."""

import datetime
import os
import platform
import re
import subprocess

from ruler.processes import Failure
from ruler.setup import REPOSITORY


def _output(argv):
    try:
        done = subprocess.run(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=10, check=False)
        return done.stdout.decode(errors="replace").strip()
    except (OSError, subprocess.TimeoutExpired):
        return ""


def _processor():
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as file:
        found = re.search(r"^model name\s*:\s*(.+)$", file.read(), re.MULTILINE)
    return found.group(1) if found else platform.machine()


def _memory():
    with open("/proc/meminfo", encoding="ascii") as file:
        return f"{int(file.readline().split()[1]) / (1 << 20):.0f} GiB"


def _system():
    try:
        return platform.freedesktop_os_release()["PRETTY_NAME"]
    except (OSError, KeyError):
        return platform.system()


def _peer_versions(setup):
    versions = {}
    for name, words, pattern in (("nginx", ["-v"], r"nginx/(\S+)"),
                                 ("h2o", ["--version"], r"version (\S+)"),
                                 ("lighttpd", ["-v"], r"lighttpd/(\S+)")):
        try:
            found = re.search(pattern, _output([setup.peer_program(name), *words]))
        except Failure:
            continue
        if found:
            versions[name] = found.group(1)
    for name, package in (("libmicrohttpd", "libmicrohttpd-dev"), ("libevent", "libevent-dev"),
                          ("Boost.Beast", "libboost-dev"), ("libwebsockets", "libwebsockets-dev"),
                          ("wrk", "wrk"), ("valgrind", "valgrind"), ("strace", "strace")):
        version = _output(["dpkg-query", "-W", "-f", "${Version}", package])
        if re.match(r"\d", version):
            versions[name] = re.sub(r"^\d+:|[-+].*$", "", version)
    versions["OpenSSL"] = (_output(["openssl", "version"]).split() + ["-", "-"])[1]
    return versions


def describe(setup):
    """A dictionary for the report."""
    return {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": _output(["git", "-C", REPOSITORY, "describe", "--always", "--dirty"]) or "-",
        "processor": _processor(),
        "processors": os.cpu_count(),
        "memory": _memory(),
        "kernel": platform.release().split("-")[0],
        "system": _system(),
        "descriptors": setup.descriptors,
        "load_average": f"{os.getloadavg()[0]:.2f}",
        "server_core": sorted(setup.server_cores)[0],
        "load_core": sorted(setup.load_cores)[0],
        "versions": _peer_versions(setup),
    }


def lines(machine):
    """The description as text."""
    versions = ", ".join(f"{name} {version}" for name, version in machine["versions"].items())
    return [
        f"{machine['date']}, commit {machine['commit']}",
        f"{machine['processor']}, {machine['processors']} processors, {machine['memory']}, "
        f"{machine['system']}, Linux {machine['kernel']}, load average {machine['load_average']} "
        "at the start",
        f"server on processor {machine['server_core']}, generator on {machine['load_core']}, "
        f"{machine['descriptors']} descriptors",
        versions,
    ]
