"""Bar charts by gnuplot."""

import subprocess

COLOURS = ("#3b6ea5", "#d98032", "#5a9a57")


def bars(path, title, axis, rows, series, log=True):
    """One horizontal bar for each row and series; `series` is [(name, [value or None a row])]."""
    step = len(series) + 1
    tics = ", ".join(f'"{row}" {i * step + (step - 2) / 2}' for i, row in enumerate(rows))
    values = [value for _, its_values in series for value in its_values if value]
    base = 10 ** (len(str(int(min(values)))) - 1) / 2 if log else 0
    script = [
        f'set terminal svg size 860,{110 + 18 * step * len(rows)} font "sans,12" background "white"',
        f'set output "{path}"',
        f'set title "{title}" noenhanced',
        f'set xlabel "{axis}" noenhanced',
        "set style fill solid noborder",
        "set grid xtics",
        "set tics nomirror",
        'set key above horizontal' if len(series) > 1 else "unset key",
        f"set ytics ({tics}) noenhanced",
        f"set yrange [{len(rows) * step - 1}:-1]",
        f"set xrange [{base}:*]",
        'set format x "%.0s%c"',
    ]
    script += ["set logscale x"] if log else []
    plots = []
    for number, (name, its_values) in enumerate(series):
        data = [f"{i * step + number} {value}" for i, value in enumerate(its_values) if value]
        script += [f"$data{number} << EOD", *data, "EOD"]
        plots.append(f"$data{number} using ({base}):1:({base}):2:($1-0.45):($1+0.45) "
                     f'with boxxyerror linecolor rgb "{COLOURS[number]}" title "{name}"')
    script.append("plot " + ", ".join(plots))
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)
