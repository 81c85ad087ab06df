"""Two pictures from the store's answers: the top hangs over time, and a fix taking effect."""

import datetime

import generate

SIZE = (7.5, 3.2)
MEAN_DAYS = 3


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
    axes.set_ylim(bottom=0)
    axes.grid(alpha=0.3)
    figure.autofmt_xdate()
    figure.tight_layout()
    # Nothing in it differs between two runs with the same answers.
    figure.savefig(path, metadata={"Date": None})


def draw(run, directory):
    """Writes fleet-top.svg and fleet-fix.svg."""
    import matplotlib  # the rest of a run does without it
    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "quorvel"
    from matplotlib import pyplot

    top = next(rows for (name, _), (_, rows) in run.answers.items() if name == "top")
    names = {row["signature_id"]: f"{row['program']}: {row['watch']}" for row in top}
    fixed = run.fleet.signatures[generate.FIXED_HANG]
    daily = {values[2].split("=", 1)[1]: rows
             for (name, values), (_, rows) in run.answers.items() if name == "by_day"}

    figure, axes = pyplot.subplots(figsize=SIZE)
    for signature, rows in daily.items():
        axes.plot(_days(rows), _smooth([row["incidents"] for row in rows]),
                  label=names[signature], linewidth=1.3)
    axes.set_ylabel(f"incidents a day, mean of {MEAN_DAYS}")
    axes.legend(fontsize="small")
    _save(figure, axes, f"{directory}/fleet-top.svg")

    figure, axes = pyplot.subplots(figsize=SIZE)
    rows = daily[fixed]
    axes.plot(_days(rows), _smooth([row["per_thousand"] for row in rows]), linewidth=1.3)
    axes.axvline(generate.day_of(generate.first_day_of(generate.FIXED_IN_BUILD)), color="black",
                 linestyle="--", linewidth=1)
    axes.annotate(" the build with the fix appears", fontsize="small", xycoords=("data", "axes fraction"),
                  xy=(generate.day_of(generate.first_day_of(generate.FIXED_IN_BUILD)), 0.93))
    axes.set_ylabel("incidents per thousand devices")
    _save(figure, axes, f"{directory}/fleet-fix.svg")
