#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""bench/report on benchmarks that are stubs: each writes the figures that a case gives it."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

TREE = pathlib.Path(sys.argv.pop(1))
TARGETS = json.loads((TREE / "bench/targets.json").read_text(encoding="utf-8"))
STUB = """#!/bin/sh
for word; do case "$word" in --benchmark_out=*) out=${word#*=};; esac; done
[ -e "$0.json" ] || exit 3
cp "$0.json" "$out"
"""


class Report(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.work = pathlib.Path(self.directory.name)
        self.stub("gnuplot", "#!/bin/sh\ncat >>" + str(self.work / "plotted") + "\n")
        for bench in TARGETS:
            self.stub(bench["program"], STUB)

    def tearDown(self):
        self.directory.cleanup()

    def stub(self, name, text):
        path = self.work / name
        path.write_text(text, encoding="utf-8")
        path.chmod(0o755)

    def figures(self, program, runs):
        """runs: (name, what the run is, its value)"""
        written = [{"run_name": name, "run_type": "iteration" if kind == "iteration" else "aggregate", "aggregate_name": kind,
                    "cpu_time": value, "real_time": value, "time_unit": "ns"} for name, kind, value in runs]
        (self.work / f"{program}.json").write_text(json.dumps({"benchmarks": written}), encoding="utf-8")

    def report(self, *arguments):
        path = f"{self.work}:{os.environ['PATH']}"
        done = subprocess.run([TREE / "bench/report", "--bin", self.work, "--out", self.work / "out", *arguments],
                              env=dict(os.environ, PATH=path), capture_output=True, text=True, check=False)
        return done.returncode, done.stdout, done.stderr

    def pool(self, ours, threads=1):
        return [(f"take_and_give/threads:{threads}", "iteration", ours), (f"peer_take_and_give/threads:{threads}", "iteration", 10)]

    def test_a_ratio_within_its_bound_is_met_and_one_beyond_it_missed(self):
        self.figures("mbuf_bench", self.pool(15) + self.pool(15.1, 2) + [
            ("take_and_give_bursts/threads:1", "iteration", 9), ("peer_take_and_give_bursts/threads:1", "iteration", 9)])
        code, text, progress = self.report("--only", "mbuf_bench")
        self.assertEqual(code, 0, progress)
        self.assertRegex(text, r"mempool, one thread \| at most 1.5 \| 1.50 \| met \|")
        self.assertRegex(text, r"mempool, two threads \| at most 1.5 \| 1.51 \| \*\*missed\*\* \|")
        self.assertIn("2 targets met, 1 missed", progress)
        self.assertIn("10.0 ns", (self.work / "plotted").read_text(encoding="utf-8"))

    def test_of_repetitions_the_least_counts(self):
        self.figures("mbuf_bench", self.pool(99) + self.pool(12))
        _, text, _ = self.report("--only", "mbuf_bench")
        self.assertRegex(text, r"one thread \| at most 1.5 \| 1.20 \| met \|")

    def test_a_time_that_the_benchmark_took_itself_is_called_by_its_name_alone(self):
        self.figures("mts_bench", [("send_drained/mts/232/manual_time/repeats:25", "least", 120),
                                   ("send_drained/sendmsg/232/manual_time/repeats:25", "least", 100)])
        _, text, _ = self.report("--only", "mts_bench")
        self.assertRegex(text, r"232 bytes, in a bare sendmsg's time \| at most 1.1 \| 1.20 \| \*\*missed\*\* \|")

    def test_a_figure_that_is_missing_is_said_and_fails(self):
        self.figures("mbuf_bench", self.pool(15))
        code, text, progress = self.report("--only", "mbuf_bench")
        self.assertEqual(code, 1)
        self.assertRegex(text, r"mempool, two threads \| at most 1.5 \| - \| not measured \|")
        self.assertIn("2 figures missing", progress)

    def test_a_benchmark_that_fails_does_not_take_the_others_along(self):
        self.figures("tsp_bench", [("ReaderLock/processes:1", "iteration", 4), ("LiburcuMemb/processes:1", "iteration", 8),
                                   ("LiburcuMembInlined/processes:1", "iteration", 2)])
        code, text, progress = self.report("--only", "tsp_bench", "--only", "mbuf_bench")
        self.assertEqual(code, 1)
        self.assertIn("mbuf_bench failed", progress)
        self.assertRegex(text, r"liburcu memb, called \| at most 1 \| 0.50 \| met \|")

    def test_benchmarks_that_do_not_run_again_keep_their_figures(self):
        self.figures("mts_bench", [("send_drained/mts/232/manual_time/repeats:25", "least", 120),
                                   ("send_drained/sendmsg/232/manual_time/repeats:25", "least", 100)])
        self.figures("mbuf_bench", self.pool(20))
        self.report("--only", "mts_bench", "--only", "mbuf_bench")
        self.figures("mbuf_bench", self.pool(12))
        _, text, _ = self.report("--only", "mbuf_bench")
        self.assertRegex(text, r"one thread \| at most 1.5 \| 1.20 \| met \|")
        self.assertRegex(text, r"232 bytes, in a bare sendmsg's time \| at most 1.1 \| 1.20 \| \*\*missed\*\* \|")
        self.assertLess(text.index("232 bytes"), text.index("one thread"), "in the order of the benchmarks")

    def test_a_benchmark_that_is_not_known_is_refused_with_those_that_are(self):
        code, _, progress = self.report("--only", "no_bench")
        self.assertEqual(code, 2)
        self.assertIn("no benchmark no_bench; there are local_address_bench", progress)

    def test_every_figure_of_a_target_is_spelled_as_its_benchmark_spells_it(self):
        for bench in TARGETS:
            source = (TREE / f"bench/{bench['program']}.cc").read_text(encoding="utf-8")
            for target in bench["targets"]:
                for name in (target["figure"], target["in"]):
                    first = name.split("/")[0]
                    self.assertRegex(source, rf'\b{first}\b', f"{name} of {bench['program']}")


if __name__ == "__main__":
    unittest.main()
