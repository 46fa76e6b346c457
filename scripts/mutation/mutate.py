"""Injects one small fault at a time and runs the tests that should detect it; see --help."""

import argparse
import json
import os
import shutil
import signal
import sys
import time
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

from faults import BEYOND, USUAL, Enumerations, faults_in  # noqa: E402
from workshop import Program, Workshop, WorkshopError  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
EQUIVALENTS = Path(__file__).parent / "equivalents.txt"
FOLDER = "build-mutation"

DESCRIPTION = """\
Injects one small fault at a time into src/, builds the related test programs and runs
them, starting with the one most likely to notice. Prints every fault that no test
notices, and a table at the end. Works on a copy of the checkout in build-mutation/,
which includes uncommitted changes.

A fault that makes a program hang counts as noticed. One that does not compile does not
count. Known faults without effect are listed in scripts/mutation/equivalents.txt, each
with its reason, and are skipped.

The group "usual": comparisons, conditions, calculations, constants, deleted statements,
levels of log lines. The group "beyond": quantities off by 15 % ("15 %"), numbers
truncated to a narrower width ("width"), neighbouring statements swapped where the order
matters ("order"), locks released early ("lock"), exception classes narrowed
("exception"), state tests extended by one state ("state"), upper bounds removed
("bound"). Tests run under ThreadSanitizer for locks, and without sanitizers otherwise.
"""

CORPUS = "{tree}/fuzz/corpus"
PROGRAMS = {
    "data": Program("data_tests", shards=2),
    "logic": Program("logic_tests", shards=6),
    "store": Program("store_tests", shards=4),
    "scripted hub": Program("scripted_hub_tests", shards=2),
    "facade": Program("facade_tests", is_networked=True, shards=6),
    "transport": Program("transport_tests"),
    "multicast": Program("multicast_tests", is_networked=True, shards=6),
    "network": Program("network_tests", is_networked=True, shards=8),
    "golden": Program("golden_packet_tests", shards=2),
    "zoo": Program("zoo_tests", is_networked=True, shards=4),
    "packets": Program("fuzz_packet", (CORPUS + "/packet",), is_googletest=False),
    "datagrams": Program("fuzz_datagram", (CORPUS + "/datagram",), is_googletest=False),
    "machine": Program("fuzz_state_machine", (CORPUS + "/state_machine",), is_googletest=False),
    "faults": Program("fault_tests", is_networked=True, shards=4),
    "system faults": Program("system_faults_tests", shards=2),
    "hostile": Program("hostile_tests", is_networked=True),
    "scenarios": Program("interface_scenario_tests", is_networked=True, shards=8),
    "callers": Program("callers_tests", is_networked=True),
    "hours": Program("turned_soak", ("0.1", "--seed", "1"), is_googletest=False),
}
# Order in which programs try a fault, by the beginning of the file's path. Programs that do not exist are skipped.
ORDER = {
    "src/DataLayer/": ("data", "logic", "packets", "datagrams", "machine", "scripted hub", "golden", "zoo", "faults",
                       "network"),
    "src/LogicLayer/": ("logic", "scripted hub", "machine", "datagrams", "store", "golden", "network", "facade",
                        "hostile", "system faults", "faults", "hours", "callers"),
    "src/Multicast/": ("transport", "multicast", "network", "logic", "facade", "zoo", "system faults", "faults", "scenarios"),
    "src/": ("scripted hub", "facade", "logic", "network", "faults", "callers"),
}

NOTICED, SURVIVED, UNBUILT, EQUAL = "noticed", "survived", "does not compile", "equal"


def programs_for(path):
    for prefix, names in ORDER.items():
        if path.startswith(prefix):
            return [PROGRAMS[name] for name in names]
    return []


def compiler_options():
    """Returns the options for the fastest build: no sanitizer, optimisation, hardening or debug information."""
    flags = "-O0"
    for linker, program in (("mold", "mold"), ("lld", "ld.lld"), ("gold", "ld.gold")):
        if shutil.which(program):
            flags += f" -fuse-ld={linker}"
            break
    launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
    return ["-DCMAKE_BUILD_TYPE=Debug", f"-DCMAKE_CXX_FLAGS={flags}", "-DCMAKE_CXX_FLAGS_DEBUG=",
            "-DKEL_SD_BUILD_TESTS=ON", "-DKEL_SD_BUILD_TOOLS=OFF", "-DKEL_SD_HARDENING=OFF",
            "-DKEL_SD_WARNINGS_AS_ERRORS=OFF", *launcher]


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh", description=DESCRIPTION,
                                     formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="Exit code 1 if a fault was not noticed, 2 if something went wrong.")
    parser.add_argument("files", metavar="FILE", nargs="*", help="inject faults only into FILE (default: all of src/)")
    parser.add_argument("--group", choices=[USUAL, BEYOND, "both"], default="both")
    parser.add_argument("--kind", action="append", help="inject only faults of this kind, as printed by --list")
    parser.add_argument("--count", metavar="N", type=int, default=300,
                        help="inject N random faults of each group; 0 for all (default: %(default)s)")
    parser.add_argument("--seed", metavar="N", type=int, default=1, help="seed of the choice (default: %(default)s)")
    parser.add_argument("--minutes", metavar="N", type=float, help="inject no further fault after N minutes")
    parser.add_argument("--jobs", "-j", metavar="N", type=int, default=os.cpu_count(),
                        help="run N compilers at a time (default: number of processors)")
    parser.add_argument("--list", action="store_true", help="print the chosen faults and exit")
    parser.add_argument("--resume", metavar="RESULTS", type=Path,
                        help="continue with a file of results: skip the faults in it and append new results "
                             f"(default: start a new file, {FOLDER}/results.jsonl)")
    parser.add_argument("--report", metavar="RESULTS", type=Path, help="print the table of a file of results and exit")
    return parser.parse_args()


def known_equivalents():
    """Returns the keys of the faults without effect."""
    keys = set()
    for block in EQUIVALENTS.read_text().split("\n\n"):
        lines = [line for line in block.splitlines() if line and not line.startswith("#")]
        changed = [line for line in lines if line[0] in "+-"]
        if changed:
            keys.add((lines[0].strip(), *("".join(line.split()) for line in changed)))
    return keys


def sources(files):
    paths = sorted((*ROOT.glob("src/**/*.cpp"), *ROOT.glob("src/**/*.h")))
    names = [str(path.relative_to(ROOT)) for path in paths]
    for file in files:
        if file not in names:
            raise WorkshopError(f"no such source file: {file}")
    return files or names


def faults_of(options):
    """Returns the faults of each group, in the order in which they are injected."""
    enumerations = Enumerations(path.read_text() for path in sorted(ROOT.glob("src/**/*.h")))
    every = [fault for path in sources(options.files)
             for fault in faults_in(path, (ROOT / path).read_text(), enumerations)]
    chosen = {}
    for group in (USUAL, BEYOND) if options.group == "both" else (options.group,):
        chosen[group] = [fault for fault in every
                         if fault.group == group and (not options.kind or fault.kind in options.kind)]
        chosen[group].sort(key=lambda fault: fault.lot(options.seed))
    return chosen


def describe(fault):
    return "\n".join([f"{fault.path}:{fault.line}: {fault.group}, {fault.kind}", *("    " + line for line in fault.diff())])


def run(options):
    groups = faults_of(options)
    equivalents = known_equivalents()
    if options.list:
        for faults in groups.values():
            open_ones = [fault for fault in faults if fault.key() not in equivalents]
            for fault in open_ones[: options.count or None]:
                print(describe(fault))
        return 0

    results = options.resume or ROOT / FOLDER / "results.jsonl"
    results.parent.mkdir(parents=True, exist_ok=True)
    if not options.resume:
        results.write_text("")
    done = {one["id"]: one for one in read(results)}
    workshop = Workshop(ROOT, ROOT / FOLDER, programs_for, compiler_options(), options.jobs,
                        lambda text: print(text, flush=True))
    workshop.prepare()
    races = workshop.sibling("build-tsan", ["-DKEL_SD_SANITIZE=thread"], ["setarch", "--addr-no-randomize"])
    end = time.monotonic() + options.minutes * 60 if options.minutes else float("inf")
    tried = []
    for faults in groups.values():
        count = 0
        for fault in faults:
            if options.count and count >= options.count:
                break
            record = done.get(fault.identifier())
            if not record:
                if time.monotonic() > end:
                    break
                record = attempt(races if fault.kind == "lock" else workshop, fault, fault.key() in equivalents)
                with open(results, "a", encoding="utf-8") as file:
                    file.write(json.dumps(record) + "\n")
                print_result(record, count + 1, options.count or len(faults))
            tried.append(record)
            count += record["outcome"] in (NOTICED, SURVIVED, EQUAL)
    print_table(tried)
    return 1 if any(one["outcome"] == SURVIVED for one in tried) else 0


def attempt(workshop, fault, is_equal):
    record = {"id": fault.identifier(), "group": fault.group, "kind": fault.kind, "path": fault.path,
              "line": fault.line, "diff": fault.diff()}
    if is_equal:
        return record | {"outcome": EQUAL, "by": "", "seconds": 0}
    verdict = workshop.attempt(fault)
    return record | {"outcome": verdict.outcome, "by": verdict.by, "seconds": round(verdict.seconds, 1)}


def read(results):
    if not results.exists():
        return []
    return [json.loads(line) for line in results.read_text().splitlines()]


def print_result(record, number, count):
    by = f" by {record['by']}" if record["outcome"] == NOTICED else ""
    print(f"{number}/{count} {record['path']}:{record['line']}: {record['group']}, {record['kind']}: "
          f"{record['outcome']}{by} ({record['seconds']:.0f} s)", flush=True)
    if record["outcome"] == SURVIVED:
        print_diff(record)


def print_diff(record):
    print("\n".join("    " + line for line in record["diff"]), flush=True)


def print_table(records):
    survivors = [one for one in records if one["outcome"] == SURVIVED]
    if survivors:
        print("\nNot noticed:")
    for one in sorted(survivors, key=lambda record: (record["path"], record["line"])):
        print(f"{one['path']}:{one['line']}: {one['group']}, {one['kind']}")
        print_diff(one)
    layout = "{:<8} {:<12} {:>8} {:>9} {:>7} {:>9} {:>17}"
    print("\n" + layout.format("group", "kind", NOTICED, SURVIVED, EQUAL, "rate", UNBUILT))
    for group in (USUAL, BEYOND):
        of_group = [one for one in records if one["group"] == group]
        for kind in sorted({one["kind"] for one in of_group}):
            print(row(layout, group, kind, [one for one in of_group if one["kind"] == kind]))
        if of_group:
            print(row(layout, group, "all", of_group))


def row(layout, group, kind, records):
    count = Counter(one["outcome"] for one in records)
    judged = count[NOTICED] + count[SURVIVED]
    rate = f"{100 * count[NOTICED] / judged:.1f} %" if judged else "-"
    return layout.format(group, kind, count[NOTICED], count[SURVIVED], count[EQUAL], rate, count[UNBUILT])


def main():
    options = arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))  # the exception ends all processes that were started
    try:
        if options.report:
            print_table(read(options.report))
            return 0
        return run(options)
    except WorkshopError as error:
        print(f"mutate.sh: {error}", file=sys.stderr)
        return 2
    except (BrokenPipeError, KeyboardInterrupt):
        return 2


if __name__ == "__main__":
    sys.exit(main())
