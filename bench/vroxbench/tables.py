"""Tables of medians, as Markdown that reads well in a terminal too."""
import statistics

from vroxbench.layout import number

DIRECT = "direct"


def medians(values):
    return {contender: statistics.median(rounds) for contender, rounds in values.items()}


def is_ours(contender):
    return contender.startswith("vrox")


def best(found, better):
    """The contender with the best of the medians; None when there are none."""
    return (max if better == "high" else min)(found, key=found.get) if found else None


def _figure(column, values, contender):
    """median [min-max] and the ratio to the same load without a proxy."""
    rounds = values.get(contender)
    if not rounds or not any(rounds):
        return "-"
    found = medians(values)
    text = number(found[contender])
    if not column.better:
        return text
    if len(rounds) > 1:
        text += f" [{number(min(rounds))}-{number(max(rounds))}]"
    base = found.get(DIRECT)
    if base and contender != DIRECT:
        text += f" {found[contender] / base:.2f}x"
    return text


def _grid(rows):
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def render(table, scenario, values, mark_best=True):
    columns = [c for c in table.columns if values.get(c.key)]
    if not columns:
        return ""
    rows = [["contender", "way in", *(c.heading for c in columns)]]
    leaders = {}
    for column in columns if mark_best else ():
        others = {n: m for n, m in medians(values[column.key]).items() if n != DIRECT}
        leaders[column.key] = best(others, column.better) if column.better else None
    for contender in scenario.contenders:
        row = [_figure(c, values[c.key], contender.name) for c in columns]
        if any(cell != "-" for cell in row):
            marked = [f"**{cell}**" if leaders.get(c.key) == contender.name else cell for c, cell in zip(columns, row)]
            rows.append([contender.name, contender.way_in, *marked])
    return _grid(rows)


def overview(headlines, scenarios, store):
    """One line for each headline figure: direct, the best of the others, the best of ours."""
    rows = [["figure", "direct", "best of the others", "vrox", "vrox against it"]]
    for headline in headlines:
        values = store.figures(headline.scenario)[0].get(headline.key)
        if not values:
            continue
        found = medians(values)
        others = {n: m for n, m in found.items() if n != DIRECT and not is_ours(n)}
        ours = {n: m for n, m in found.items() if is_ours(n)}
        other, own = best(others, headline.better), best(ours, headline.better)
        rows.append([headline.title, number(found[DIRECT]) if found.get(DIRECT) else "-",
                     f"{number(others[other])} ({other})" if other else "-",
                     f"{number(ours[own])} ({own})" if own else "-",
                     f"{ours[own] / others[other]:.2f}x" if other and own else "-"])
    return _grid(rows)


def growth(scenario, values):
    return render(scenario.tables[0], scenario, values, mark_best=False)
