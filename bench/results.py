#!/usr/bin/python3
"""The figures of a `make bench` run: one JSON line per figure, and the table they end in.

  results.py add --group G --name N --value V --unit U [--goal "< 1.2 s"] [--floor F --floor-name T]
                 [--peer P (--peer-value X | --peer-note WHY)] [--note T] [--higher-is-better]
      appends a line to the file LECTERN_BENCH_RESULTS names (nothing when it is unset, so a
      script run on its own still prints its own figures and nothing more)
  results.py gbench PROGRAM JSON
      turns the figures worth a row of a Google Benchmark program's JSON output into lines
  results.py table FILE
      prints the table of every line of FILE, grouped by "group" in order of arrival

A line: {"group", "name", "value", "unit"} and optionally "goal", "floor", "floor_name", "peer",
"peer_value" (null when the peer was not measured, with "peer_note" saying why), "note" and
"higher_is_better" (lower is better otherwise).
"""
import argparse
import json
import os
import re
import sys

# Google Benchmark programs: (benchmark, group, row name, how to read the figure, unit, extras).
# A figure is "time" (the run's real time), "cpu", "bytes_per_second" (read as MB/s) or the name
# of a counter. Extras may name a "floor" benchmark of the same program (read the same way).
_SMART_QUERIES = [
    ("Search3Terms", 'search harbour "city council" OR festival'),
    ("ReadLater", '"Read Later"'),
    ("RSSNews", '"RSS News"'),
    ("RSSStarred", '"RSS Starred"'),
    ("DateRow2Weeks", "date_added in-last 2 weeks"),
    ("TagArt", "tags contains art"),
]
GBENCH_ROWS = {
    "store_bench": [
        ("BM_StoreRefreshStories/indexing:0", "store",
         "storing 15,000 new stories (5 KB HTML), a save per feed of 50, as a refresh does",
         "time", "s", {"floor": "BM_BareSqliteRefreshStories",
                       "floor_name": "bare SQLite: one transaction, one prepared statement, same row sizes",
                       "note": "preview text included; search index left for later"}),
        ("BM_StoreRefreshStories/indexing:1", "store",
         "the same, indexing each save's stories for search", "time", "s",
         {"floor": "BM_BareSqliteRefreshStories",
          "floor_name": "bare SQLite: one transaction, one prepared statement, same row sizes"}),
        ("BM_InsertStoriesThroughTheStore", "store", "inserting 100,000 stories (2 KB HTML), saves of 500",
         "time", "s", {"floor": "BM_InsertStoriesPlainSqlitePrecomputedPreview",
                       "floor_name": "plain SQLite statements, same schema and batches"}),
        ("BM_UnreadCountsPerFeed", "store", "unread counts of 1,000 feeds over 100,000 stories", "time", "ms", {}),
        ("BM_FetchFiveHundredBookmarksById", "store", "500 stories by id out of 100,000", "time", "ms", {}),
        ("BM_OpenExistingLibrary", "store", "opening a library of 100,000 stories", "time", "ms", {}),
    ],
    "feeds_bench": [
        ("BM_RSSParser/generated:0", "feed parsing", "stream parser, shared corpus", "bytes_per_second", "MB/s",
         {"higher_is_better": True}),
        ("BM_RSSParser/generated:1", "feed parsing", "stream parser, generated feeds", "bytes_per_second", "MB/s",
         {"higher_is_better": True}),
        ("BM_FixRelativeImageLinks/20000", "feed parsing", "repairing 20,000 root-relative image links",
         "time", "ms", {}),
    ],
    "content_bench": [
        ("BM_Extract20MBPage", "extraction", "one page of 20 MB", "time", "ms", {}),
    ],
    "net_bench": [
        ("BM_SequentialGets", "network", "1,000 GETs one after another", "requests_per_s", "requests/s",
         {"higher_is_better": True}),
        ("BM_TenAtATimeGets", "network", "1,000 GETs ten at a time", "requests_per_s", "requests/s",
         {"higher_is_better": True}),
        ("BM_LargeDownloadToFile/200", "network", "a 200 MB download to a file", "time", "ms", {}),
        ("BM_LargeDownloadToFile/200", "network", "a 200 MB download to a file: memory growth",
         "peak_rss_growth_MB", "MB", {}),
    ],
    "services_bench": [
        (f"BM_{service}{run}", "services, in process", f"{service}: {label}", "time", "ms", {})
        for service in ("Feedbin", "Fever", "Feedly")
        for run, label in (("FirstSync", "first sync, 10,000 unread entries"),
                           ("SecondSyncNothingNew", "second sync, nothing new"))
    ],
    "smart_bench": [
        (f"BM_{kind}_{query}", "smart folders", f"{label}: {what} (median of 5)", "time", "ms",
         {"goal": "< 30 ms"})
        for query, what in _SMART_QUERIES
        for kind, label in (("Count", "count"), ("List50", "50 newest"))
    ] + [
        ("BM_BuildLibrary", "smart folders", "inserting 100,000 stories with the search index",
         "stories_per_s_with_index", "stories/s", {"higher_is_better": True}),
        ("BM_Count_Search3Terms_PlainLike", "smart folders", "the search as a plain LIKE scan (no index)",
         "time", "ms", {}),
    ],
    "sync_bench": [
        ("BM_ColdSync", "refresh, in process", "cold: 300 feeds x 50 entries, all new", "time", "ms", {}),
        ("BM_WarmSync", "refresh, in process", "warm: nothing new, full answers", "time", "ms", {}),
        ("BM_WarmSyncNotModified", "refresh, in process", "warm: answers of 304", "time", "ms", {}),
    ],
}

_TIME_UNITS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def append(line, path=None):
    path = path or os.environ.get("LECTERN_BENCH_RESULTS")
    if not path:
        return
    with open(path, "a", encoding="utf-8") as out:
        out.write(json.dumps(line, ensure_ascii=False) + "\n")


def _gbench_runs(document):
    """Name -> run; of repeated benchmarks only the median counts."""
    runs = {}
    for run in document.get("benchmarks", []):
        name = run.get("run_name", run["name"])
        # Without the "/iterations:N/real_time" suffixes the names are those of the source.
        short = re.sub(r"(/(iterations|repeats|min_time):[0-9.]+|/real_time|/manual_time)+$", "", name)
        if run.get("run_type") == "aggregate":
            if run.get("aggregate_name") == "median":
                runs[name] = runs[short] = run
            continue
        runs.setdefault(name, run)
        runs.setdefault(short, run)
    return runs


def _figure(run, how, unit):
    if how in ("time", "cpu"):
        seconds = run["real_time" if how == "time" else "cpu_time"] * _TIME_UNITS[run.get("time_unit", "ns")]
        return seconds / _TIME_UNITS[unit]
    if how == "bytes_per_second":
        return run["bytes_per_second"] / 1e6
    return run[how]


def gbench_lines(program, document):
    lines = []
    runs = _gbench_runs(document)
    for benchmark, group, name, how, unit, extras in GBENCH_ROWS.get(program, []):
        run = runs.get(benchmark)
        if run is None:
            continue  # filtered out of this run, or renamed
        if run.get("error_occurred"):
            print(f"{program} {benchmark}: {run.get('error_message', 'failed')}: no row", file=sys.stderr)
            continue
        line = {"group": group, "name": name, "value": _figure(run, how, unit), "unit": unit}
        extras = dict(extras)
        floor = extras.pop("floor", None)
        line.update(extras)
        if floor:
            floor_run = runs.get(floor)
            if floor_run and not floor_run.get("error_occurred"):
                line["floor"] = _figure(floor_run, how, unit)
        lines.append(line)
    return lines


def _number(value):
    if value is None:
        return "-"
    if isinstance(value, str):
        return value
    magnitude = abs(value)
    if magnitude >= 100:
        return f"{value:,.0f}"
    if magnitude >= 10:
        return f"{value:.1f}"
    return f"{value:.3g}" if magnitude >= 0.01 else f"{value:.2g}"


def _goal_verdict(line):
    """'met' or 'missed' for a goal of the form '< 1.2 s' in the row's unit; None otherwise."""
    match = re.fullmatch(r"\s*(<=?|>=?)\s*([0-9.,]+)\s*(\S*)\s*", line.get("goal") or "")
    if not match or (match.group(3) and match.group(3) != line["unit"]):
        return None
    op, bound, value = match.group(1), float(match.group(2).replace(",", "")), line["value"]
    met = {"<": value < bound, "<=": value <= bound, ">": value > bound, ">=": value >= bound}[op]
    return "met" if met else "missed"


def _ratio(numerator, denominator):
    if numerator is None or denominator in (None, 0):
        return "-"
    return f"{numerator / denominator:.2f}x"


def table_rows(lines):
    """(group, cells) in order of arrival; ratios are of costs: above 1 means Lectern costs more than
    the floor, and the peer more than Lectern (inverted for figures where higher is better)."""
    rows = []
    for line in lines:
        value, unit = line["value"], line["unit"]
        higher = bool(line.get("higher_is_better"))
        floor = line.get("floor")
        floor_cell = "-"
        if floor is not None:
            floor_cell = f"{_number(floor)} {unit}" + (f" ({line['floor_name']})" if line.get("floor_name") else "")
        over_floor = _ratio(floor, value) if higher else _ratio(value, floor)
        peer_cell, peer_ratio = "-", "-"
        if "peer" in line:
            peer_value = line.get("peer_value")
            if peer_value is None:
                peer_cell = f"{line['peer']}: not measured ({line.get('peer_note', 'no reason given')})"
            else:
                peer_cell = f"{line['peer']}: {_number(peer_value)} {unit}"
                peer_ratio = _ratio(value, peer_value) if higher else _ratio(peer_value, value)
        goal = line.get("goal") or "-"
        verdict = _goal_verdict(line)
        if verdict:
            goal += f" ({verdict})"
        rows.append((line["group"], [line["name"], f"{_number(value)} {unit}", goal, floor_cell, over_floor,
                                     peer_cell, peer_ratio, line.get("note", "")]))
    return rows


HEADER = ["figure", "Lectern", "goal", "floor", "Lectern/floor", "peer", "peer/Lectern", "note"]


def print_table(lines, out=sys.stdout):
    groups = {}
    for group, cells in table_rows(lines):
        groups.setdefault(group, []).append(cells)
    if not groups:
        print("No figures were recorded.", file=out)
        return
    for group, rows in groups.items():
        print(f"\n### {group}\n", file=out)
        print("| " + " | ".join(HEADER) + " |", file=out)
        print("|" + "|".join(" --- " for _ in HEADER) + "|", file=out)
        for cells in rows:
            print("| " + " | ".join(cell.replace("|", "/") for cell in cells) + " |", file=out)


def read_lines(path):
    lines = []
    if not os.path.exists(path):
        return lines
    with open(path, encoding="utf-8") as source:
        for number, text in enumerate(source, 1):
            if not text.strip():
                continue
            try:
                line = json.loads(text)
                if not all(key in line for key in ("group", "name", "value", "unit")):
                    raise ValueError("group, name, value and unit are required")
                float(line["value"])
            except (ValueError, TypeError) as error:
                print(f"{path}:{number}: skipped ({error}): {text.strip()[:120]}", file=sys.stderr)
                continue
            lines.append(line)
    return lines


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    commands = parser.add_subparsers(dest="command", required=True)
    add = commands.add_parser("add")
    add.add_argument("--group", required=True)
    add.add_argument("--name", required=True)
    add.add_argument("--value", required=True, type=float)
    add.add_argument("--unit", required=True)
    add.add_argument("--goal")
    add.add_argument("--floor", type=float)
    add.add_argument("--floor-name")
    add.add_argument("--peer")
    add.add_argument("--peer-value", type=float)
    add.add_argument("--peer-note")
    add.add_argument("--note")
    add.add_argument("--higher-is-better", action="store_true")
    gbench = commands.add_parser("gbench")
    gbench.add_argument("program")
    gbench.add_argument("json")
    table = commands.add_parser("table")
    table.add_argument("file")
    args = parser.parse_args(argv)

    if args.command == "add":
        line = {"group": args.group, "name": args.name, "value": args.value, "unit": args.unit}
        for key in ("goal", "floor", "floor_name", "note"):
            if getattr(args, key) is not None:
                line[key] = getattr(args, key)
        if args.peer:
            line["peer"] = args.peer
            line["peer_value"] = args.peer_value
            if args.peer_value is None:
                line["peer_note"] = args.peer_note or "not measured"
        if args.higher_is_better:
            line["higher_is_better"] = True
        append(line)
    elif args.command == "gbench":
        try:
            with open(args.json, encoding="utf-8") as source:
                document = json.load(source)
        except (OSError, ValueError) as error:
            print(f"{args.program}: no figures ({error})", file=sys.stderr)
            return 0
        for line in gbench_lines(args.program, document):
            append(line)
    else:
        print_table(read_lines(args.file))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
