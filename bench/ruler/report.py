"""The results as text for the terminal, as Markdown and as JSON."""

import json

from ruler import machine
from ruler.figures import short, table

LIMIT_SHARE = 0.9  # of its core; a server that had less to do was not driven to its limit


def share(value):
    return "-" if value is None else f"{value * 100:.0f} %"


def with_quartiles(spread):
    if spread is None:
        return "-"
    if spread["first"] == spread["third"]:
        return times(spread)
    return f"{spread['median']:.2f} ({spread['first']:.2f}-{spread['third']:.2f})"


def times(spread):
    return "-" if spread is None else f"{spread['median']:.2f}"


def _bound(row, result):
    """A mark where throughput tells about something else than the server."""
    used, own = row["server_share"], row["load_share"]
    if result["shared_cores"] or used is None or own is None or used >= LIMIT_SHARE:
        return ""
    return " *" if own >= LIMIT_SHARE else " ~"


def _marks(rows, escape=""):
    """What the marks of a table's rows mean."""
    used = {row[-1][-1] for row in rows}
    meanings = {"*": "the generator was the limit, not the server",
                "~": "neither the server nor the generator was busy all the time"}
    return [f"{escape}{mark} {text}: throughput says little there, CPU holds"
            for mark, text in meanings.items() if mark in used]


def _rounds_table(result):
    relation = f"x {result['base_text']}"
    per = result["per"]
    with_nginx = result["against"] != "nginx" and any(row["cpu_to_nginx"]
                                                      for row in result["rows"])
    heads = ["", f"CPU us/{per}", f"CPU {relation}", *(["CPU x nginx"] if with_nginx else []),
             f"throughput {relation}", f"{per}s/s", "p50 us", "p99 us",
             "core: server", "generator"]
    rows = []
    for row in result["rows"]:
        rows.append([row["contender"], short(row["cpu_us"]), with_quartiles(row["cpu_ratio"]),
                     *([times(row["cpu_to_nginx"])] if with_nginx else []),
                     with_quartiles(row["throughput_ratio"]),
                     f"{row['requests_per_second']:,.0f}", short(row["p50_us"]),
                     short(row["p99_us"]), share(row["server_share"]),
                     share(row["load_share"]) + _bound(row, result)])
    return heads, rows


def _counts_table(result):
    heads = ["", *result["columns"]]
    rows = []
    for row in result["rows"]:
        cells = []
        for title in result["columns"]:
            spread = row["values"].get(title)
            if spread is None:
                cells.append("-")
            elif spread["first"] == spread["third"]:
                cells.append(short(spread["median"]))
            else:
                cells.append(f"{short(spread['median'])} "
                             f"({short(spread['first'])}-{short(spread['third'])})")
        rows.append([row["contender"], *cells])
    return heads, rows


def _table(result):
    return _rounds_table(result) if result["kind"] == "rounds" else _counts_table(result)


def _goal_line(goal):
    measured = "-" if goal["measured"] is None else short(goal["measured"])
    return f"goal {goal['goal']}: {measured}, {goal['verdict']}"


def _wrk_line(result):
    if not result.get("wrk"):
        return None
    rates = ", ".join(f"{name} {rate:,.0f}" for name, rate in result["wrk"].items())
    return f"requests/s as wrk counts them: {rates}"


def _left_out(result):
    return [f"{failure['contender']} left out: {failure['reason']}"
            for failure in result["failures"]]


def as_text(result):
    """The lines that end a workload on the terminal."""
    lines = ["", f"{result['workload']}: {result['title']}"]
    heads, rows = _table(result)
    lines += table(heads, rows) if rows else ["  nothing was measured"]
    notes = _marks(rows) + [_goal_line(goal) for goal in result["goals"]]
    if _wrk_line(result):
        notes.append(_wrk_line(result))
    lines += [f"  {note}" for note in notes + _left_out(result)]
    return lines + [""]


def summary(results):
    """All goals, one a line."""
    rows = []
    for result in results:
        for goal in result["goals"]:
            measured = "-" if goal["measured"] is None else short(goal["measured"])
            rows.append([result["workload"], goal["goal"], measured, goal["verdict"]])
    return table(["workload", "goal", "measured", ""], rows) if rows else []


def _markdown_table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|---" + "|---:" * (len(heads) - 1) + "|"]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return lines


def as_markdown(results, description, options, check):
    lines = ["# Figures of one run of `make bench`", "",
             "What they are and how they came about: [performance.md](performance.md).", "",
             "## Machine and run", ""]
    lines += [f"- {line}" for line in machine.lines(description)]
    lines += [f"- {options.rounds} rounds, slices of {options.slice} s behind {options.warm_up} s "
              "of warm-up", *(f"- {line}" for line in check), "", "## Goals", ""]
    rows = [[result["workload"], goal["goal"],
             "-" if goal["measured"] is None else short(goal["measured"]), goal["verdict"]]
            for result in results for goal in result["goals"]]
    lines += _markdown_table(["workload", "goal", "measured", ""], rows)
    for result in results:
        heads, rows = _table(result)
        lines += ["", f"## {result['workload']}: {result['title']}", ""]
        lines += _markdown_table(heads, [[cell.replace(" *", " \\*").replace(" ~", " \\~")
                                          for cell in row] for row in rows])
        notes = _marks(rows, "\\") + [_goal_line(goal) for goal in result["goals"]]
        if _wrk_line(result):
            notes.append(_wrk_line(result))
        notes += _left_out(result)
        if notes:
            lines += ["", *(f"- {note}" for note in notes)]
    return "\n".join(lines) + "\n"


def as_json(results, description, options, check):
    return json.dumps({"machine": description, "options": vars(options), "notes": check,
                       "results": results}, indent=1) + "\n"
