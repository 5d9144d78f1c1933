"""The command tests/reliability/attacks/run."""

import resource

from attacks import (chunk_extensions, descriptor_table, desync, floods, forbidden_paths, lingering,
                     pings, resets, slow_clients, smuggling, tls_clients, websocket_abuse)
from common import checks

FAMILIES = (slow_clients, descriptor_table, tls_clients, resets, chunk_extensions, pings,
            forbidden_paths, desync, smuggling, floods, lingering, websocket_abuse)
DESCRIPTION = ("Attacks the server over loopback: each check starts a host of its own, does what "
               "an unfriendly client would, and looks at what others get meanwhile and at what is "
               "left behind.")


def main(argv):
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    known = [check for family in FAMILIES for check in family.CHECKS]
    return checks.main(argv, "attacks/run", DESCRIPTION, known)
