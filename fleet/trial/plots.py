"""Two pictures from the store's answers: the top hangs over time, and a fix taking effect."""

import datetime

import generate

SIZE = (7.5, 3.0)
MEAN_DAYS = 3
TICK_WEEKS = 2


def _days(rows):
    return [datetime.date.fromisoformat(row["day"]) for row in rows]


def _smooth(values):
    """The mean of each day and those before it, MEAN_DAYS in all."""
    means = []
    for end in range(1, len(values) + 1):
        part = values[max(0, end - MEAN_DAYS):end]
        means.append(sum(part) / len(part))
    return means


def _save(figure, axes, path):
    from matplotlib import dates
    axes.xaxis.set_major_locator(dates.WeekdayLocator(dates.MO, interval=TICK_WEEKS))
    axes.xaxis.set_major_formatter(dates.DateFormatter("%-d %b"))
    axes.set_xlabel(str(generate.FIRST_DAY.year))
    axes.set_ylim(bottom=0)
    axes.margins(x=0.02)
    axes.grid(alpha=0.3)
    for side in ("top", "right"):
        axes.spines[side].set_visible(False)
    figure.tight_layout()
    # Nothing in it differs between two runs with the same answers.
    figure.savefig(path, metadata={"Date": None})


def _draw_top(pyplot, daily, names, path):
    """The most frequent hangs, a line each; the legend in the order in which the lines end."""
    figure, axes = pyplot.subplots(figsize=SIZE)
    lines = [(rows[-1]["incidents"], axes.plot(
        _days(rows), _smooth([row["incidents"] for row in rows]), label=names[signature],
        linewidth=1.5)[0]) for signature, rows in daily.items()]
    axes.set_title(f"The most frequent hangs, mean of {MEAN_DAYS} days", fontsize="medium")
    axes.set_ylabel("incidents a day")
    axes.legend(handles=[line for _, line in sorted(lines, key=lambda one: -one[0])],
                fontsize="small", frameon=False, loc="center left", bbox_to_anchor=(1, 0.5))
    _save(figure, axes, path)


def _draw_fix(pyplot, rows, name, path):
    """One hang, and the day on which the first device has the build that fixes it."""
    figure, axes = pyplot.subplots(figsize=SIZE)
    axes.plot(_days(rows), _smooth([row["per_thousand"] for row in rows]), linewidth=1.5)
    appears = generate.day_of(generate.first_day_of(generate.FIXED_IN_BUILD))
    axes.axvline(appears, color="black", linestyle="--", linewidth=1)
    axes.annotate("  the build with the fix appears", fontsize="small",
                  xycoords=("data", "axes fraction"), xy=(appears, 0.93))
    axes.set_title(f"{name}: a fix takes effect, mean of {MEAN_DAYS} days", fontsize="medium")
    axes.set_ylabel("incidents a day for a\nthousand active devices")
    _save(figure, axes, path)


def draw(run, directory):
    """Writes fleet-top.svg and fleet-fix.svg."""
    import matplotlib  # the rest of a run does without it
    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "quorvel"
    from matplotlib import pyplot

    top = next(rows for (name, _), (_, rows) in run.answers.items() if name == "top")
    names = {row["signature_id"]: f"{row['program']}: {row['watch']}" for row in top}
    daily = {values[2].split("=", 1)[1]: rows
             for (name, values), (_, rows) in run.answers.items() if name == "by_day"}
    fixed = run.fleet.signatures[generate.FIXED_HANG]
    _draw_top(pyplot, daily, names, f"{directory}/fleet-top.svg")
    _draw_fix(pyplot, daily[fixed], names[fixed], f"{directory}/fleet-fix.svg")
