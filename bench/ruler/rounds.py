"""Workloads in which the contenders take turns in short slices."""

from dataclasses import dataclass, field

from ruler.figures import Spread, short
from ruler.load import Holder, finish_load, run_load, run_wrk, start_load
from ruler.processes import Failure
from ruler.servers import CEILING, Server
from ruler.setup import Missing


@dataclass
class Rounds:
    """One such workload.

    load: the generator's words, mode first. against: the contender that the ratios refer to, or for
    single contenders another one in `pairs`. idle: connections that each server holds meanwhile.
    """

    key: str
    title: str
    load: list
    contenders: list
    goals: list
    against: str = CEILING
    pairs: dict = field(default_factory=dict)
    idle: int = 0
    same_core: bool = False
    both_cores: bool = False   # server on both, one generator on each
    wrk_path: str = ""         # also asks wrk, once per contender
    per: str = "request"
    base_text: str = ""        # what the ratios refer to, where that is not one contender

    def base_of(self, name):
        return self.pairs.get(name, self.against)

    def measure(self, setup, options, say):
        return _Block(self, setup, options, say).run()


class _Block:
    """One pass of a workload: all servers up, then the rounds."""

    def __init__(self, workload, setup, options, say):
        self.workload = workload
        self.setup = setup
        self.options = options
        self.say = say
        self.servers = []
        self.holders = {}   # name of a server -> generator that holds idle connections to it
        self.failures = []
        self.slices = {}    # name -> {round: result}
        self.wrk = {}

    def run(self):
        try:
            self._start()
            for number in range(self.options.rounds):
                order = list(self.servers) if number % 2 == 0 else list(reversed(self.servers))
                for server in order:
                    self._slice(server, number)
                self.say(self._progress(number))
            if self.workload.wrk_path:
                self._ask_wrk()
        finally:
            for server in list(self.servers):
                self._end(server)
        return self._result()

    def _start(self):
        if self.workload.both_cores:
            cores = self.setup.all_cores
        else:
            cores = self.setup.server_cores
        for contender in self.workload.contenders:
            try:
                server = Server(self.setup, contender, cores)
            except Missing as reason:
                self._failed(contender.name, str(reason), missing=True)
                continue
            except Failure as reason:
                self._failed(contender.name, str(reason))
                continue
            self.servers.append(server)
            self.slices[server.name] = {}
            if self.workload.idle:
                self._hold_idle(server)

    def _hold_idle(self, server):
        count = self.options.idle(self.workload.idle)
        words = ["idle", "--connections", str(count), *_path(self.workload.load)]
        try:
            self.holders[server.name] = Holder(self.setup, server, words)
        except Failure as reason:
            self._drop(server, f"{count} idle connections: {reason}")

    def _slice(self, server, number):
        if server not in self.servers:
            return
        words = [*self.workload.load, "--warm-up", str(self.options.warm_up),
                 "--seconds", str(self.options.slice)]
        try:
            if self.workload.both_cores:
                result = self._two_generators(words, server)
            else:
                cores = self.setup.server_cores if self.workload.same_core else None
                result = run_load(self.setup, words, server, cores=cores)
        except Failure as reason:
            if not server.alive():
                reason = f"ended: {server.log_tail()}"
            self._drop(server, f"round {number + 1}: {reason}")
            return
        self.slices[server.name][number] = result

    def _two_generators(self, words, server):
        started = [start_load(self.setup, words, server, {core})
                   for core in sorted(self.setup.all_cores)]
        results = [finish_load(self.setup, load, 60.0) for load in started]
        rate = sum(result["requests"] / result["seconds"] for result in results)
        merged = dict(results[0])
        merged["seconds"] = sum(result["seconds"] for result in results) / len(results)
        merged["requests"] = rate * merged["seconds"]
        for figure in ("own_cpu_ns", "errors", "bytes"):
            merged[figure] = sum(result[figure] for result in results)
        # Both saw all of the server.
        merged["server_cpu_ns"] = sum(result["server_cpu_ns"] for result in results) / len(results)
        for figure in ("p50_us", "p90_us", "p99_us", "max_us"):
            merged[figure] = max(result[figure] for result in results)
        return merged

    def _ask_wrk(self):
        for server in list(self.servers):
            try:
                self.wrk[server.name] = run_wrk(self.setup, server, self.workload.wrk_path, 64,
                                                self.options.wrk_seconds)
            except Missing as reason:
                self.failures.append({"contender": "wrk", "reason": str(reason), "missing": True})
                return
            except Failure as reason:
                self._failed(server.name, str(reason))

    def _drop(self, server, reason):
        self._failed(server.name, reason)
        self._end(server)

    def _end(self, server):
        holder = self.holders.pop(server.name, None)
        if holder is not None:
            holder.stop()
        server.stop()
        self.servers.remove(server)

    def _failed(self, name, reason, missing=False):
        self.say(f"    {name} is left out: {reason}")
        self.failures.append({"contender": name, "reason": reason, "missing": missing})

    def _progress(self, number):
        parts = []
        for name, results in self.slices.items():
            base = self.workload.base_of(name)
            ratio = _ratio(results, self.slices.get(base, {}), number, cpu_per_request)
            if ratio is not None and name != base:
                parts.append(f"{name} {ratio:.2f}")
            elif number in results:
                parts.append(f"{name} {short(cpu_per_request(results[number]))} us")
        return f"  {self.workload.key} {number + 1}/{self.options.rounds}  {', '.join(parts)}"

    def _result(self):
        rows = [self._row(name) for name, results in self.slices.items() if results]
        goals = []
        for goal in self.workload.goals:
            figure = cpu_per_request if goal.kind == "cpu" else rate
            goals.append(goal.judge(self._spread(goal.contender, goal.against, figure)))
        return {"workload": self.workload.key, "title": self.workload.title, "kind": "rounds",
                "per": self.workload.per, "against": self.workload.against,
                "base_text": self.workload.base_text or self.workload.against,
                "shared_cores": self.workload.same_core or self.workload.both_cores, "rows": rows,
                "goals": goals, "failures": self.failures, "wrk": self.wrk,
                "slices": {name: list(results.values()) for name, results in self.slices.items()}}

    def _spread(self, name, base, figure):
        results, base_results = self.slices.get(name, {}), self.slices.get(base, {})
        ratios = [_ratio(results, base_results, number, figure) for number in results]
        ratios = [ratio for ratio in ratios if ratio is not None]
        return Spread.of(ratios) if ratios else None

    def _row(self, name):
        results = list(self.slices[name].values())
        base = self.workload.base_of(name)

        def middle(figure):
            values = [figure(result) for result in results]
            return None if None in values else Spread.of(values).median

        def spread(other, figure):
            found = self._spread(name, other, figure)
            return None if found is None else vars(found)

        return {
            "contender": name, "rounds": len(results), "against": base,
            "cpu_us": middle(cpu_per_request),
            "cpu_ratio": spread(base, cpu_per_request),
            "cpu_to_nginx": spread("nginx", cpu_per_request),
            "throughput_ratio": spread(base, rate),
            "requests_per_second": middle(rate),
            "p50_us": middle(lambda result: result["p50_us"]),
            "p99_us": middle(lambda result: result["p99_us"]),
            "server_share": middle(server_share),
            "load_share": middle(load_share),
        }


def _path(load):
    """The words of a load that name the path."""
    return load[load.index("--path"):][:2] if "--path" in load else []


def _ratio(results, base_results, number, figure):
    """A contender's figure to the base's, both of one round."""
    if number not in results or number not in base_results:
        return None
    value, base = figure(results[number]), figure(base_results[number])
    return None if value is None or not base else value / base


def cpu_per_request(result):
    """Microseconds of processor time of the server."""
    if result["server_cpu_ns"] is None:
        return None
    return result["server_cpu_ns"] / result["requests"] / 1000


def rate(result):
    return result["requests"] / result["seconds"]


def server_share(result):
    """The part of one core that the server used."""
    if result["server_cpu_ns"] is None:
        return None
    return result["server_cpu_ns"] / (result["seconds"] * 1e9)


def load_share(result):
    return result["own_cpu_ns"] / (result["seconds"] * 1e9)

