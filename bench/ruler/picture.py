"""Draws the ratios of a run as bars, in an SVG that needs nothing from elsewhere and follows the
reader's light or dark theme."""

from html import escape

from ruler.servers import OURS

WIDTH = 860
NAMES = 160      # room for the contenders' names
RIGHT = 60       # room for a figure behind the longest bar
BAR = 13
STEP = 17
GROUP_HEAD = 40
GROUP_GAP = 14
TOP = 84
FULL = 3.0       # the ratio at which bars end; longer ones are cut

STYLE = """
text { font: 12px system-ui, "Segoe UI", "DejaVu Sans", sans-serif; fill: #24292f; }
.title { font-size: 17px; font-weight: 600; }
.group { font-weight: 600; paint-order: stroke; stroke: #ffffff; stroke-width: 6px; }
.small { font-weight: 400; font-size: 11px; fill: #57606a; }
.paper { fill: #ffffff; }
.grid { stroke: #d0d7de; stroke-width: 1; }
.one { stroke: #57606a; stroke-width: 1; }
.peer { fill: #8c959f; }
.base { fill: #c9d1d9; }
.ours { fill: #0969da; }
.goal { stroke: #cf222e; stroke-width: 2; }
.spread { stroke: #24292f; stroke-width: 1; }
@media (prefers-color-scheme: dark) {
  text { fill: #e6edf3; }
  .group { stroke: #0d1117; }
  .small { fill: #9198a1; }
  .paper { fill: #0d1117; }
  .grid { stroke: #30363d; }
  .one { stroke: #9198a1; }
  .peer { fill: #6e7681; }
  .base { fill: #3d444d; }
  .ours { fill: #4493f8; }
  .goal { stroke: #ff7b72; }
  .spread { stroke: #e6edf3; }
}
"""


def draw(results, caption):
    """results: those of workloads in rounds; others are passed over. Returns the SVG's text."""
    groups = [result for result in results
              if result["kind"] == "rounds" and not result.get("by_throughput")
              and any(row["cpu_ratio"] for row in result["rows"])]
    body = []
    y = TOP
    for result in groups:
        y = _group(body, result, y)
    height = y + 10
    grid = []
    for ratio in (0, 0.5, 1, 1.5, 2, 2.5, 3):
        x = _x(ratio)
        grid.append(f'<line class="{"one" if ratio == 1 else "grid"}" x1="{x}" y1="{TOP - 12}" '
                    f'x2="{x}" y2="{height - 8}"/>')
        grid.append(f'<text class="small" x="{x}" y="{TOP - 18}" text-anchor="middle">'
                    f'{ratio:g}</text>')
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
        f'width="{WIDTH}" height="{height}" role="img" '
        'aria-label="Processor time per request of each server as a ratio">',
        f"<style>{STYLE}</style>",
        f'<rect class="paper" width="{WIDTH}" height="{height}"/>',
        f'<text class="title" x="16" y="28">Processor time per request, as a ratio (less is '
        'better)</text>',
        f'<text class="small" x="16" y="47">{escape(caption)}</text>',
        *grid, *body, "</svg>", ""])


def _x(ratio):
    return round(NAMES + min(ratio, FULL) / FULL * (WIDTH - NAMES - RIGHT), 1)


def _group(body, result, y):
    body.append(f'<text class="group" x="16" y="{y + 16}">{escape(result["workload"])}'
                f'<tspan class="small" dx="8">{escape(result["title"])}; '
                f'1 = {escape(result["base_text"])}</tspan></text>')
    y += GROUP_HEAD - 14
    goals = dict(_goals(result))
    for row in result["rows"]:
        if row["cpu_ratio"] is not None:
            _bar(body, row, y, goals.get(row["contender"]))
            y += STEP
    return y + GROUP_GAP


def _goals(result):
    """Where this server's bar is to end, in terms of the picture's base."""
    ratios = {row["contender"]: row["cpu_ratio"] for row in result["rows"]}
    for goal in result["goals"]:
        if goal["kind"] != "cpu":
            continue
        base = ratios.get(goal["against"])
        first = goal is result["goals"][0]  # further ones are about single peers
        if base is not None and first and goal["limit"] * base["median"] <= FULL:
            yield goal["contender"], goal["limit"] * base["median"]


def _bar(body, row, y, goal):
    spread = row["cpu_ratio"]
    name, ratio = row["contender"], spread["median"]
    kind = "base" if name == row["against"] else \
        "ours" if name.startswith(OURS) else "peer"
    x = _x(ratio)
    body.append(f'<text x="{NAMES - 8}" y="{y + 11}" text-anchor="end">{escape(name)}</text>')
    body.append(f'<rect class="{kind}" x="{NAMES}" y="{y}" width="{max(x - NAMES, 1):.1f}" '
                f'height="{BAR}" rx="2"/>')
    if name != row["against"]:
        low, high = _x(spread["first"]), _x(spread["third"])
        body.append(f'<line class="spread" x1="{low}" y1="{y + BAR / 2}" x2="{high}" '
                    f'y2="{y + BAR / 2}"/>')
    if goal is not None:
        at = _x(goal)
        body.append(f'<line class="goal" x1="{at}" y1="{y - 2}" x2="{at}" y2="{y + BAR + 2}"/>')
    end = max(x, _x(spread["third"]), _x(goal or 0))
    cut = " (cut)" if ratio > FULL else ""
    body.append(f'<text class="small" x="{end + 6}" y="{y + 11}">{ratio:.2f}{cut}</text>')
