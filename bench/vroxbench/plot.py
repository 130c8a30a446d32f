"""The headline figures as bars, one panel each."""
from vroxbench.layout import number
from vroxbench.tables import DIRECT, is_ours, medians

COLOURS = {True: "#c1121f", False: "#8d99ae"}
DIRECT_COLOUR = "#2b2d42"
COLUMNS = 3


def _panel(axes, headline, values):
    found = {n: m for n, m in medians(values).items() if m > 0}
    order = sorted(found, key=found.get, reverse=headline.better == "low")
    colours = [DIRECT_COLOUR if n == DIRECT else COLOURS[is_ours(n)] for n in order]
    spans = [[found[n] - min(values[n]) for n in order], [max(values[n]) - found[n] for n in order]]
    bars = axes.barh(order, [found[n] for n in order], xerr=spans, color=colours, ecolor="#00000060", height=0.7)
    axes.bar_label(bars, [" " + number(found[n]) for n in order], fontsize=7, padding=6)
    axes.set_title(f"{headline.title}\n({'more' if headline.better == 'high' else 'less'} is better)", fontsize=9)
    axes.tick_params(labelsize=7)
    axes.margins(x=0.22)
    for side in ("top", "right"):
        axes.spines[side].set_visible(False)


def draw(path, headlines, store):
    """False when there is nothing to draw with or nothing to draw."""
    try:
        import matplotlib
    except ImportError:
        return False
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "vrox", "font.family": "sans-serif"})
    from matplotlib import pyplot

    shown = [(h, v) for h in headlines if (v := store.figures(h.scenario)[0].get(h.key))]
    if not shown:
        return False
    rows = -(-len(shown) // COLUMNS)
    figure, panels = pyplot.subplots(rows, COLUMNS, figsize=(4.6 * COLUMNS, 3.1 * rows), squeeze=False)
    for axes, (headline, values) in zip(panels.flat, shown):
        _panel(axes, headline, values)
    for axes in panels.flat[len(shown):]:
        axes.set_visible(False)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
    return True
