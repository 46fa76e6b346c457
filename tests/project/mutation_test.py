#!/usr/bin/env python3
"""What scripts/mutate.sh plants, and how it tries it, on a project of one file."""

import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts/mutation"))
sys.dont_write_bytecode = True

from faults import BEYOND, USUAL, Enumerations, faults_in  # noqa: E402
from workshop import Program, Workshop, WorkshopError  # noqa: E402

HEADER = "struct State { enum State_t : int { IDLE, BUSY, DONE }; };"


def planted(group, kind, body):
    """What the line of a function becomes, for each fault of that kind."""
    text = f"void f()\n{{\n    {body}\n}}\n"
    faults = faults_in("src/sample.cpp", text, Enumerations([HEADER]))
    return [fault.planted().splitlines()[2].strip() for fault in faults if (fault.group, fault.kind) == (group, kind)]


class PlantedFaults(unittest.TestCase):
    def test_a_comparison_takes_in_its_limit_or_leaves_it_out(self):
        self.assertEqual(planted(USUAL, "comparison", "g(a < b);"), ["g(a <= b);"])

    def test_a_condition_is_turned_round(self):
        self.assertEqual(planted(USUAL, "condition", "if (a && b) g();"), ["if (a || b) g();", "if (!(a && b)) g();"])

    def test_a_constant_is_one_more_or_less(self):
        self.assertEqual(planted(USUAL, "constant", "g(0x10);"), ["g(0x11);", "g(0xf);"])

    def test_a_statement_is_left_out_but_for_declarations(self):
        self.assertEqual(planted(USUAL, "statement", "g();"), [";"])
        self.assertEqual(planted(USUAL, "statement", "const int a = g();"), [])

    def test_a_log_line_changes_its_level_and_not_its_text(self):
        self.assertEqual(planted(USUAL, "level", 'SD_LOG(Error) << "a" << 7;'), ['SD_LOG(Warning) << "a" << 7;'])
        self.assertEqual(planted(USUAL, "constant", 'SD_LOG(Error) << "a" << 7;'), [])

    def test_a_measure_is_off_by_fifteen_percent_to_either_side(self):
        self.assertEqual(planted(BEYOND, "15 %", "g(1'000, 6);"), ["g(1150, 6);", "g(850, 6);"])

    def test_a_number_is_cut_to_a_narrower_width(self):
        self.assertEqual(planted(BEYOND, "width", "const std::size_t a = g();"),
                         ["const std::size_t a = static_cast<std::uint16_t>(g());"])
        self.assertEqual(planted(BEYOND, "width", "g(static_cast<std::uint32_t>(a));"),
                         ["g(static_cast<std::uint16_t>(a));"])

    def test_neighbours_are_swapped_where_the_order_shows(self):
        self.assertEqual(planted(BEYOND, "order", "g(); h();"), ["h(); g();"])
        self.assertEqual(planted(BEYOND, "order", "a.x = b; a.y = c;"), [])

    def test_a_lock_is_given_back_early(self):
        self.assertEqual(planted(BEYOND, "lock", "const std::lock_guard<std::mutex> lock(m); g(); h();"),
                         ["{ const std::lock_guard<std::mutex> lock(m); } g(); h();",
                          "{ const std::lock_guard<std::mutex> lock(m); g(); } h();"])

    def test_an_exception_class_is_narrowed(self):
        self.assertEqual(planted(BEYOND, "exception", "try { g(); } catch (...) { h(); }"),
                         ["try { g(); } catch (const Poco::Exception&) { h(); }",
                          "try { g(); } catch (const std::exception&) { h(); }"])

    def test_a_state_test_takes_in_the_next_state(self):
        self.assertEqual(planted(BEYOND, "state", "g(state == State::BUSY);"),
                         ["g((state == State::BUSY || state == State::DONE));"])

    def test_an_upper_bound_is_removed(self):
        self.assertEqual(planted(BEYOND, "bound", "if (a > most) g();"), ["if (false) g();"])
        self.assertEqual(planted(BEYOND, "bound", "g(std::min(a, most));"), ["g((a));", "g((most));"])


CMAKE = """\
cmake_minimum_required(VERSION 3.22)
project(sample CXX)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
add_executable(sample_tests src/sample.cpp)
"""
SAMPLE = """\
int clamped(int value)
{
    int unused = 0;
    if (value > 5)
        return 5;
    unused = 1;
    return value;
}
int main()
{
    volatile int i = 0;
    while (i < 3)
        i = i + 1;
    return clamped(9) == 5 ? 0 : 1;
}
"""


@unittest.skipUnless(shutil.which("git") and shutil.which("ninja"), "needs git and ninja")
class TriedFaults(unittest.TestCase):
    def test_each_is_judged_by_the_programs_and_leaves_nothing_behind(self):
        with tempfile.TemporaryDirectory() as folder:
            root = Path(folder) / "project"
            (root / "src").mkdir(parents=True)
            (root / "CMakeLists.txt").write_text(CMAKE)
            (root / "src/sample.cpp").write_text(SAMPLE)
            subprocess.run(["git", "init", "--quiet", root], check=True)
            program = Program("sample_tests", is_googletest=False)
            workshop = Workshop(root, Path(folder) / "work", lambda path: [program], [], 1, patience=1)
            workshop.prepare()
            faults = {fault.diff()[-1]: fault
                      for fault in faults_in("src/sample.cpp", SAMPLE, Enumerations([]))}

            outcomes = [workshop.attempt(faults[line]).outcome for line in (
                "+    if (false)",
                "+    ;",
                "+        ;",
            )]

            self.assertEqual(outcomes, ["noticed", "survived", "noticed"])
            self.assertEqual(workshop.read("src/sample.cpp"), SAMPLE)
            with self.assertRaisesRegex(WorkshopError, "another run is using"):
                Workshop(root, Path(folder) / "work", lambda path: [program], [], 1).prepare()
            workshop.close()


if __name__ == "__main__":
    unittest.main()
