#!/usr/bin/python3
"""Checks of the benchmark harness itself: a wrong limit, a lost child or a miscounted pause
would make the table lie. scripts/bench runs these before measuring; alone:

    /usr/bin/python3 -m unittest discover -s bench -p 'test_*.py'

The checks that run a driver find it in $LARKPOST_BENCH_BUILD (default build-bench) and are
skipped when it has not been built.
"""
import base64
import email
import email.policy
import os
import random
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import run  # noqa: E402

BUILD = os.path.abspath(os.environ.get("LARKPOST_BENCH_BUILD", "build-bench"))
LIMITS = os.path.join(BUILD, "bench", "bench_limits")


def crlf_base64(data):
    """Base64 with CR LF every 76 characters and none after the last line."""
    return base64.encodebytes(data).replace(b"\n", b"\r\n").rstrip(b"\r\n")


class SizesTest(unittest.TestCase):
    def test_base64_length_matches_a_real_encoding(self):
        for n in (0, 1, 2, 3, 56, 57, 58, 114, 1000, 57 * 1000 + 1):
            self.assertEqual(run.base64_length(n), len(crlf_base64(bytes(n))), n)

    def test_attachment_for_text_is_the_largest_that_fits(self):
        for target in (1000, 5 * run.MIB):
            size = run.attachment_for_text(target, 900)
            self.assertLessEqual(run.base64_length(size) + 900, target)
            self.assertGreater(run.base64_length(size + 3) + 900, target)

    def test_small_peer_message_fits_and_parses(self):
        inputs = run.Inputs.__new__(run.Inputs)
        inputs.dir = tempfile.mkdtemp(prefix="larkpost-bench-test-")
        try:
            inputs.write("small_body.txt", run.prose_text(1000).encode())
            text = inputs.small_peer_message()
            self.assertLessEqual(len(text), run.SMALL_MESSAGE)
            self.assertGreater(len(text), run.SMALL_MESSAGE - 80)  # trimmed, not emptied
            message = email.message_from_bytes(text, policy=email.policy.SMTP)
            self.assertEqual(message["To"], "rcpt@example.com")
            self.assertNotIn(b"\n.", text)  # the raw-socket limit sends it without dot-stuffing
        finally:
            inputs.remove()

    def test_prose_and_html_have_the_asked_size_and_crlf_lines(self):
        self.assertEqual(len(run.prose_text(4096)), 4096)
        html = run.html_text(100 * 1024)
        self.assertGreaterEqual(len(html), 100 * 1024)
        self.assertLess(len(html), 100 * 1024 + 200)
        self.assertNotIn("\n", html.replace("\r\n", ""))


class ChildTest(unittest.TestCase):
    def python_child(self, code):
        return [run.PYTHON, "-c", code]

    def test_result_and_peak_of_a_child(self):
        result = run.run_child(self.python_child(
            "import json; b = bytearray(64 << 20); print('noise'); print(json.dumps({'seconds': 1.5}))"), 30)
        self.assertEqual(result["seconds"], 1.5)
        self.assertGreaterEqual(result["maxrss_kb"], 64 * 1024)

    def test_a_failing_child_is_reported_with_its_error(self):
        with self.assertRaises(run.ChildFailed) as failure:
            run.run_child(self.python_child("import sys; sys.stderr.write('boom'); sys.exit(3)"), 30)
        self.assertIn("exit 3", str(failure.exception))
        self.assertIn("boom", str(failure.exception))

    def test_a_child_without_result_fails(self):
        with self.assertRaises(run.ChildFailed):
            run.run_child(self.python_child("print('no json here')"), 30)

    def test_a_hanging_child_is_killed_at_its_limit(self):
        start = time.monotonic()
        with self.assertRaises(run.ChildFailed) as failure:
            run.run_child(self.python_child("import time; time.sleep(30)"), 0.5)
        self.assertLess(time.monotonic() - start, 10)
        self.assertIn("killed", str(failure.exception))


class ReportTest(unittest.TestCase):
    def report(self, results):
        suite = run.Suite.__new__(run.Suite)
        suite.results = results
        suite.failures = {}
        return run.Report(suite)

    def verdicts(self, report):
        return {name: verdict for name, _, _, verdict in report.targets}

    def test_net_time_subtracts_the_measured_pauses(self):
        report = self.report({"session/200/larkpost": [
            {"seconds": 1.2, "pause_seconds": 1.1}, {"seconds": 1.4, "pause_seconds": 1.2},
            {"seconds": 1.3, "pause_seconds": 1.25}]})
        self.assertAlmostEqual(report.net_seconds("session/200/larkpost"), 0.1)

    def test_session_targets_compare_net_times(self):
        def runs(seconds, pauses=None):
            entry = {"seconds": seconds, "cpu_seconds": 0.01, "bytes": 1024}
            if pauses is not None:
                entry["pause_seconds"] = pauses
            return [entry]
        report = self.report({
            "session/200/larkpost": runs(1.05, 1.0), "session/200/python": runs(0.06),
            "session/200/poco": runs(0.04)})
        report.sessions()
        verdicts = self.verdicts(report)
        self.assertEqual(verdicts["per-message time, 200 in a session, below Python"], "PASS")
        self.assertEqual(verdicts["per-message time, 200 in a session, below POCO"], "FAIL")
        self.assertEqual(verdicts["200 small messages, pauses subtracted, no slower than smtplib"], "PASS")

    def test_assembly_targets(self):
        def runs(seconds, growth_kb=1000, encoded=1024 * 1000):
            return [{"seconds": seconds, "bytes": encoded, "baseline_kb": 100, "peak_kb": 100 + growth_kb,
                     "maxrss_kb": 99999, "work_seconds": seconds / 2}]
        report = self.report({
            "assemble/10M/build/larkpost": runs(0.1, growth_kb=3900),
            "assemble/10M/build/poco": runs(0.35), "assemble/10M/build/python": runs(1.0),
            "assemble/10M/base64/limit": runs(0.06)})
        report.assembly()
        verdicts = self.verdicts(report)
        self.assertEqual(verdicts["assembly 10 MiB (build) >= 3x faster than the fastest peer"], "PASS")
        self.assertEqual(verdicts["assembly 10 MiB (build) within 2x of read + table Base64"], "PASS")
        self.assertEqual(verdicts["assembly 10 MiB (build) within 2x of the table Base64 alone"], "FAIL")
        # Growth is the child's own VmHWM minus its baseline, never the parent-polluted maxrss.
        self.assertEqual(verdicts["peak memory, 10 MiB attachment, / encoded size"], "PASS")

    def test_send_target_uses_measured_pauses_plus_raw_transfer(self):
        report = self.report({
            "send/5M/larkpost": [{"seconds": 13.0, "pause_seconds": 12.5, "pause_nominal_seconds": 12.0,
                                  "pauses": 2400, "cpu_seconds": 0.1, "bytes": 5e6}],
            "send/5M/limit": [{"seconds": 0.5, "cpu_seconds": 0.01, "bytes": 5e6}]})
        report.sends()
        self.assertEqual(self.verdicts(report)["Send 5 MiB <= 1.05 x (pauses + raw transfer)"], "PASS")
        report = self.report({
            "send/5M/larkpost": [{"seconds": 14.0, "pause_seconds": 12.5, "pause_nominal_seconds": 12.0,
                                  "pauses": 2400, "cpu_seconds": 0.1, "bytes": 5e6}],
            "send/5M/limit": [{"seconds": 0.5, "cpu_seconds": 0.01, "bytes": 5e6}]})
        report.sends()
        self.assertEqual(self.verdicts(report)["Send 5 MiB <= 1.05 x (pauses + raw transfer)"], "FAIL")

    def test_thread_speed_up_compares_rates_not_times(self):
        def runs(messages, seconds):
            return [{"messages": messages, "seconds": seconds, "cpu_seconds": 0.01, "server_cpu_seconds": 0.01}]
        for two_seconds, verdict in ((0.12, "PASS"), (0.13, "FAIL")):  # 1.67x and 1.54x the rate of one
            report = self.report({"threads/1/one-sink": runs(500, 0.1), "threads/2/one-sink": runs(1000, two_seconds),
                                  "threads/2/sink-each": runs(1000, 0.1)})
            report.threads()
            self.assertEqual(self.verdicts(report)["2 threads >= 1.6x the messages/s of 1 (one smtp-sink)"], verdict)

    def test_scaling_targets_per_mib_and_growth_over_encoded(self):
        def runs(seconds, growth_kb, encoded_kb):
            return [{"seconds": seconds, "bytes": encoded_kb * 1024, "baseline_kb": 5000, "peak_kb": 5000 + growth_kb,
                     "maxrss_kb": 999999}]
        report = self.report({  # build linear, growth 0.86x; send 1.4x time and 1.36x memory per MiB at 100
            "scale/1M/build": runs(0.010, 1200, 1400), "scale/100M/build": runs(1.2, 120000, 140000),
            "scale/1M/send": runs(0.010, 1400, 1400), "scale/100M/send": runs(1.4, 190000, 140000)})
        report.scaling()
        self.assertEqual(self.verdicts(report), {
            "build: per-MiB time, 100 MiB vs 1 MiB": "PASS", "build: per-MiB memory, 100 MiB vs 1 MiB": "PASS",
            "peak memory of build / encoded size (worst of 1, 100 MiB)": "PASS",
            "send: per-MiB time, 100 MiB vs 1 MiB": "FAIL", "send: per-MiB memory, 100 MiB vs 1 MiB": "FAIL",
            "peak memory of send / encoded size (worst of 1, 100 MiB)": "FAIL"})

@unittest.skipUnless(os.access(LIMITS, os.X_OK), "bench_limits not built in " + BUILD)
class LimitEncoderTest(unittest.TestCase):
    def test_reference_base64_equals_python(self):
        directory = tempfile.mkdtemp(prefix="larkpost-bench-test-")
        try:
            rng = random.Random(7)
            for size in (1, 2, 3, 57, 58, 114, 57 * 300 + 2):
                data = rng.randbytes(size)
                source = os.path.join(directory, "in.bin")
                out = os.path.join(directory, "out.txt")
                with open(source, "wb") as f:
                    f.write(data)
                result = run.run_child([LIMITS, "assemble", "mode=base64", "attach=" + source, "out=" + out], 30)
                with open(out, "rb") as f:
                    self.assertEqual(f.read(), crlf_base64(data), size)
                self.assertEqual(result["bytes"], run.base64_length(size))
        finally:
            for name in os.listdir(directory):
                os.remove(os.path.join(directory, name))
            os.rmdir(directory)


if __name__ == "__main__":
    unittest.main()
