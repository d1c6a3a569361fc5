#!/usr/bin/env python3
"""The feed set of the end-to-end sync benchmark.

prepare: generates the synthetic set twice (as it is, and with --shift for the next state; only
the first with --no-shift), moves every date so the newest item is an hour old (the generator's
dates are fixed in the past, and a reader drops stories older than its keep period), and writes
an OPML file and a newsboat url list for the set. bench/sync/feed_server serves it.
"""
import argparse
import datetime as dt
import email.utils
import os
import re
import subprocess
import sys
from pathlib import Path
from xml.sax.saxutils import escape

RFC822 = re.compile(rb"(?:[A-Z][a-z]{2}, )?\d{1,2} [A-Z][a-z]{2} \d{4} \d{2}:\d{2}(?::\d{2})? (?:[+-]\d{4}|GMT|UT|Z|[ECMP][SD]T)")
RFC3339 = re.compile(rb"\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}(?:\.\d+)?(?:Z|[+-]\d{2}:\d{2})")


def parse_rfc822(raw):
    return email.utils.parsedate_to_datetime(raw.decode())


def parse_rfc3339(raw):
    return dt.datetime.fromisoformat(raw.decode().replace("Z", "+00:00"))


def dates(data):
    for match in RFC822.finditer(data):
        yield parse_rfc822(match.group(0))
    for match in RFC3339.finditer(data):
        yield parse_rfc3339(match.group(0))


def shift_dates(data, delta):
    def rfc822(match):
        return email.utils.format_datetime(parse_rfc822(match.group(0)) + delta).encode()

    def rfc3339(match):
        return (parse_rfc3339(match.group(0)) + delta).isoformat().encode()

    return RFC3339.sub(rfc3339, RFC822.sub(rfc822, data))


def feed_files(folder):
    return sorted(p for p in folder.iterdir() if p.suffix in (".rss", ".rdf", ".atom", ".xml"))


def prepare(args):
    out = Path(args.out)
    generator = Path(args.generator)
    base = f"http://127.0.0.1:{args.port}"
    states = {"state0": 0} if args.no_shift else {"state0": 0, "state1": args.shift}
    for name, shift in states.items():
        subprocess.run([sys.executable, str(generator), "-n", str(args.feeds), "-m", str(args.items), "-o",
                        str(out / name), "--shift", str(shift), "--base-url", base],
                       check=True, stdout=subprocess.DEVNULL)
    newest = max(d for path in feed_files(out / list(states)[-1]) for d in dates(path.read_bytes()))
    delta = dt.datetime.now(dt.timezone.utc) - dt.timedelta(hours=1) - newest
    delta = dt.timedelta(seconds=round(delta.total_seconds()))
    for name in states:
        for path in feed_files(out / name):
            path.write_bytes(shift_dates(path.read_bytes(), delta))
    urls = [line.strip() for line in (out / "state0" / "urls.txt").read_text().splitlines() if line.strip()]
    (out / "newsboat-urls").write_text("\n".join(urls) + "\n")
    outlines = "\n".join(f'    <outline type="rss" text="feed {i}" title="feed {i}" xmlUrl="{escape(u)}"/>'
                         for i, u in enumerate(urls))
    (out / "feeds.opml").write_text('<?xml version="1.0" encoding="UTF-8"?>\n<opml version="1.0">\n'
                                    "  <head><title>bench</title></head>\n  <body>\n" + outlines +
                                    "\n  </body>\n</opml>\n")
    total = sum(p.stat().st_size for p in feed_files(out / "state0"))
    print(f"{len(urls)} feeds x {args.items} items, {total / 1e6:.1f} MB per state, dates moved by {delta}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("prepare")
    p.add_argument("--generator", required=True)
    p.add_argument("--out", required=True)
    p.add_argument("--port", type=int, required=True)
    p.add_argument("--feeds", type=int, default=300)
    p.add_argument("--items", type=int, default=50)
    p.add_argument("--shift", type=int, default=5)
    p.add_argument("--no-shift", action="store_true", help="the first state only")
    args = parser.parse_args()
    prepare(args)


if __name__ == "__main__":
    main()
