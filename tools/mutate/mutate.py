"""What script/mutate runs: plants faults in copies of the tree, one at a time, and lets the tests look for them."""
import argparse
import os
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path

from faults import faults_in

ACCEPTED = "tests/mutants-accepted"
QUICK = "quick"  # without sanitizers: a file's own tests take a tenth of the time, and find most faults
THOROUGH = "gcc"


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="script/mutate",
        description="Plants small faults in src/ and compat/, one at a time, and names those that no test finds.",
        epilog=f"Faults without an observable difference are listed in {ACCEPTED}, each with its reason.",
    )
    parser.add_argument("files", metavar="FILE", nargs="*", help="where to plant (all of src/ and compat/libuci/)")
    parser.add_argument("--count", type=int, metavar="N", help="only N of the faults, drawn at random")
    parser.add_argument("--seed", type=int, default=1, metavar="S", help="draws the same N again (1)")
    parser.add_argument("--jobs", type=int, default=1, metavar="J", help="copies of the tree at work at once (1)")
    parser.add_argument("--limit", type=int, metavar="SECONDS", help="for the tests of one fault (20 and thrice what all take)")
    parser.add_argument("--list", action="store_true", help="show the faults and plant none")
    return parser.parse_args()


def git_files():
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], check=True, capture_output=True, text=True)
    return [name for name in listed.stdout.splitlines() if Path(name).is_file()]


def default_files():
    return sorted(name for name in git_files() if re.fullmatch(r"(src|compat/libuci)/[^/]*\.[ch]pp", name))


def accepted_faults():
    """{(path, before, after): reason}; the file says how an entry looks."""
    found, entry = {}, {}
    path = Path(ACCEPTED)
    for line in path.read_text().splitlines() if path.exists() else []:
        if line.startswith("- "):
            entry["before"] = line[2:]
        elif line.startswith("+ "):
            found[entry["path"], entry["before"], line[2:]] = entry["reason"]
        elif line and not line.startswith("#"):
            entry["path"], entry["reason"] = line.split(": ", 1)
    return found


def draw(arguments):
    faults = [f for path in arguments.files or default_files() for f in faults_in(path, Path(path).read_text())]
    if arguments.count is None or arguments.count >= len(faults):
        return faults
    chosen = random.Random(arguments.seed).sample(range(len(faults)), arguments.count)
    return [faults[i] for i in sorted(chosen)]


def own_label(path):
    """What the test programs of a file's module are called: zone_model.cpp's are zones_test and zones_property_test."""
    word = "libuci" if path.startswith("compat/") else Path(path).stem.split("_")[0]
    return f"^{word}"


class Copy:
    """A copy of the tree, in which one fault is planted at a time."""

    def __init__(self, number):
        self.tree = Path("build/mutate") / str(number)
        self.running = None
        self.synchronize()

    def synchronize(self):
        """Files that are alike keep their times, so that nothing is built twice."""
        wanted = set(git_files())
        for old in (p for p in self.tree.rglob("*") if p.is_file() and not p.is_relative_to(self.tree / "build")):
            if str(old.relative_to(self.tree)) not in wanted:
                old.unlink()
        for name in wanted:
            copy = self.tree / name
            if not copy.exists() or copy.read_bytes() != Path(name).read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(name, copy)
        evtlog = self.tree / "build" / "evtlog"  # as script/bootstrap leaves it
        evtlog.parent.mkdir(exist_ok=True)
        if Path("build/evtlog").exists() and not evtlog.exists():
            evtlog.symlink_to(Path("build/evtlog").absolute())

    def run(self, command, limit=None):
        """Whether it succeeds; None when it takes too long. All it started ends with it."""
        log = open(self.tree / "build" / "log", "w")
        self.running = subprocess.Popen(command, cwd=self.tree, stdout=log, stderr=log, start_new_session=True)
        try:
            return self.running.wait(limit) == 0
        except subprocess.TimeoutExpired:
            os.killpg(self.running.pid, signal.SIGKILL)
            self.running.wait()
            return None

    def log(self):
        return (self.tree / "build" / "log").read_text(errors="replace")

    def configure(self, preset):
        # programs are linked anew only where they changed themselves
        return self.run(["cmake", "--preset", preset, "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"])

    def build(self, preset):
        return self.run(["cmake", "--build", f"build/{preset}"])

    def test(self, preset, selection, limit=None):
        """A test that fails is tried again: a machine that is too busy must not count as one that finds a fault."""
        ctest = ["ctest", "--test-dir", f"build/{preset}", "--stop-on-failure", "--repeat", "until-pass:2"]
        return self.run(ctest + ["-j", str(os.cpu_count())] + selection, limit)

    def prepare(self):
        """The seconds that the tests of each preset take where nothing is planted."""
        seconds = {}
        for preset in (QUICK, THOROUGH):
            if not self.configure(preset) or not self.build(preset):
                sys.exit(f"{self.log()}\nscript/mutate: the tree does not build")
            begin = time.monotonic()
            if not self.test(preset, ["--no-tests=error"]):
                sys.exit(f"{self.log()}\nscript/mutate: tests fail with nothing planted")
            seconds[preset] = time.monotonic() - begin
        return seconds

    def try_out(self, fault, limits):
        """What becomes of a fault: "found", "survived" or "does not compile"."""
        place = self.tree / fault.path
        source = place.read_text()
        place.write_text(fault.plant(source))
        own = own_label(fault.path)
        try:
            if not self.build(QUICK):
                return "does not compile"
            missed = (
                self.test(QUICK, ["-L", own], limits[QUICK])
                and self.build(THOROUGH)
                and self.test(THOROUGH, ["-L", own], limits[THOROUGH])
                and self.test(THOROUGH, ["-LE", own], limits[THOROUGH])
            )
            return "survived" if missed else "found"
        finally:
            place.write_text(source)

    def stop(self):
        if self.running and self.running.poll() is None:
            os.killpg(self.running.pid, signal.SIGKILL)


class Survey:
    """Faults, what became of them, and the copies that work on them."""

    def __init__(self, faults, accepted, limits):
        self.accepted, self.limits = accepted, limits
        self.total, self.done = len(faults), 0
        self.waiting = queue.SimpleQueue()
        for fault in faults:
            self.waiting.put(fault)
        self.results = []
        self.lock = threading.Lock()

    def note(self, fault, result):
        with self.lock:
            self.done += 1
            self.results.append((fault, result))
            shown = f"\n- {fault.before}\n+ {fault.after}" if result == "survived" else ""
            print(f"{self.done}/{self.total}  {result:<16}  {fault.path}:{fault.line}{shown}", flush=True)

    def work(self, copy):
        while True:
            try:
                fault = self.waiting.get_nowait()
            except queue.Empty:
                return
            self.note(fault, "accepted" if fault.key in self.accepted else copy.try_out(fault, self.limits))

    def run(self, copies):
        threads = [threading.Thread(target=self.work, args=[copy], daemon=True) for copy in copies]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return self.done == self.total

    def close(self):
        """Names the survivors by file, and counts."""
        print("\nSurvivors" if self.count("survived") else "\nNo survivors")
        for fault, result in sorted(self.results, key=lambda r: (r[0].path, r[0].begin)):
            if result == "survived":
                print(fault)
        kinds = ("found", "survived", "accepted", "does not compile")
        print(", ".join(f"{self.count(kind)} {kind}" for kind in kinds))

    def count(self, kind):
        return Counter(result for _, result in self.results)[kind]


def main():
    arguments = parse_arguments()
    faults = draw(arguments)
    if arguments.list:
        print("\n\n".join(str(fault) for fault in faults))
        return 0
    copies = [Copy(number) for number in range(1, arguments.jobs + 1)]
    seconds = [copy.prepare() for copy in copies]
    limits = {p: arguments.limit or 20 + 3 * max(each[p] for each in seconds) for p in (QUICK, THOROUGH)}
    survey = Survey(faults, accepted_faults(), limits)
    try:
        complete = survey.run(copies)
    except KeyboardInterrupt:
        complete = False
        for copy in copies:
            copy.stop()
    survey.close()
    return 0 if complete and survey.count("survived") == 0 else 1


sys.exit(main())
