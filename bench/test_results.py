#!/usr/bin/python3
"""Checks of bench/results.py: /usr/bin/python3 -B -m unittest discover -s bench -p 'test_*.py'"""
import io
import json
import os
import tempfile
import unittest

import results


def gbench_run(name, real_time, time_unit="ms", **extra):
    return {"name": name, "run_name": name, "run_type": "iteration", "real_time": real_time,
            "cpu_time": real_time, "time_unit": time_unit, **extra}


class GbenchLines(unittest.TestCase):
    def test_suffixed_names_medians_floors_and_failures(self):
        document = {"benchmarks": [
            gbench_run("BM_StoreRefreshStories/indexing:0/iterations:1/real_time", 10_000),
            gbench_run("BM_BareSqliteRefreshStories/iterations:1/real_time", 1_250),
            # A failed case gives no row; the others still do.
            gbench_run("BM_UnreadCountsPerFeed", 0, error_occurred=True, error_message="wrong counts"),
            gbench_run("BM_OpenExistingLibrary", 1_200, time_unit="us"),
        ]}
        lines = results.gbench_lines("store_bench", document)
        by_name = {line["name"]: line for line in lines}
        refresh = by_name["storing 15,000 new stories (5 KB HTML), a save per feed of 50, as a refresh does"]
        self.assertAlmostEqual(refresh["value"], 10.0)
        self.assertAlmostEqual(refresh["floor"], 1.25)
        self.assertNotIn("unread counts of 1,000 feeds over 100,000 stories", by_name)
        self.assertAlmostEqual(by_name["opening a library of 100,000 stories"]["value"], 1.2)

    def test_repeated_benchmarks_give_their_median(self):
        runs = [gbench_run("BM_Count_TagArt/repeats:5", t) for t in (40, 41, 60, 45, 44)]
        runs.append({**gbench_run("BM_Count_TagArt/repeats:5_mean", 46), "run_name": "BM_Count_TagArt/repeats:5",
                     "run_type": "aggregate", "aggregate_name": "mean"})
        runs.append({**gbench_run("BM_Count_TagArt/repeats:5_median", 44), "run_name": "BM_Count_TagArt/repeats:5",
                     "run_type": "aggregate", "aggregate_name": "median"})
        [line] = results.gbench_lines("smart_bench", {"benchmarks": runs})
        self.assertEqual(line["value"], 44)
        self.assertEqual(line["goal"], "< 30 ms")


class Table(unittest.TestCase):
    def cells(self, **line):
        return dict(zip(results.HEADER, results.table_rows([{"group": "g", "name": "n", **line}])[0][1]))

    def test_ratios_are_of_costs_whichever_way_is_better(self):
        time = self.cells(value=2.0, unit="s", floor=0.5, peer="other", peer_value=8.0)
        self.assertEqual((time["Lectern/floor"], time["peer/Lectern"]), ("4.00x", "4.00x"))
        rate = self.cells(value=100.0, unit="MB/s", floor=200.0, peer="other", peer_value=25.0, higher_is_better=True)
        self.assertEqual((rate["Lectern/floor"], rate["peer/Lectern"]), ("2.00x", "4.00x"))

    def test_goals_and_unmeasured_peers(self):
        self.assertEqual(self.cells(value=1.3, unit="s", goal="< 1.2 s")["goal"], "< 1.2 s (missed)")
        self.assertEqual(self.cells(value=1.1, unit="s", goal="< 1.2 s")["goal"], "< 1.2 s (met)")
        # A goal in another unit is shown as it stands, not judged.
        self.assertEqual(self.cells(value=900, unit="ms", goal="< 1.2 s")["goal"], "< 1.2 s")
        peer = self.cells(value=1.0, unit="s", peer="newsboat", peer_value=None, peer_note="newsboat not installed")
        self.assertEqual(peer["peer"], "newsboat: not measured (newsboat not installed)")
        self.assertEqual(peer["peer/Lectern"], "-")

    def test_lines_are_grouped_in_order_of_arrival_and_bad_lines_skipped(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "results.jsonl")
            os.environ["LECTERN_BENCH_RESULTS"] = path
            try:
                results.append({"group": "refresh", "name": "cold", "value": 1.0, "unit": "s"})
                results.append({"group": "store", "name": "insert", "value": 2.0, "unit": "s"})
                with open(path, "a", encoding="utf-8") as out:
                    out.write("not json\n" + json.dumps({"group": "store", "name": "no value"}) + "\n")
                results.append({"group": "refresh", "name": "warm", "value": 0.5, "unit": "s"})
            finally:
                del os.environ["LECTERN_BENCH_RESULTS"]
            lines = results.read_lines(path)
        self.assertEqual([line["name"] for line in lines], ["cold", "insert", "warm"])
        out = io.StringIO()
        results.print_table(lines, out)
        text = out.getvalue()
        self.assertEqual(text.count("### refresh"), 1)
        self.assertLess(text.index("| warm |"), text.index("### store"))


if __name__ == "__main__":
    unittest.main()
