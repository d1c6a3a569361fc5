#!/usr/bin/python3
"""Times python3-readability (Debian's readability-lxml) over a folder of pages.

Each page is read into memory first; only Document(bytes).summary() is timed, REPEATS times per
page. A page's time is the median of its runs; prints the median over pages and their sum as JSON.
"""
import json
import pathlib
import statistics
import sys
import time

from readability import Document
import logging

logging.disable(logging.CRITICAL)  # readability logs its choices; the figures need none of that


def main():
    folder = pathlib.Path(sys.argv[1])
    repeats = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    pages = sorted((p.name, p.read_bytes()) for p in folder.glob("*.html"))
    wall, cpu, failed = [], [], []
    for name, data in pages:
        page_wall, page_cpu = [], []
        try:
            for _ in range(repeats):
                w0, c0 = time.perf_counter(), time.thread_time()
                Document(data).summary()
                c1, w1 = time.thread_time(), time.perf_counter()
                page_wall.append((w1 - w0) * 1000)
                page_cpu.append((c1 - c0) * 1000)
        except Exception as error:  # a page it cannot handle is reported, not timed
            failed.append(f"{name}: {type(error).__name__}")
            continue
        wall.append(statistics.median(page_wall))
        cpu.append(statistics.median(page_cpu))
    print(json.dumps({
        "pages": len(wall),
        "median_ms": statistics.median(wall) if wall else 0,
        "total_ms": sum(wall),
        "cpu_median_ms": statistics.median(cpu) if cpu else 0,
        "cpu_total_ms": sum(cpu),
        "failed": failed,
    }))


if __name__ == "__main__":
    main()
