#!/usr/bin/env python3
"""Plants one fault at a time in the product and runs the tests that cover it: a test suite that notices none of
them proves nothing. Works in copies below build/mutants; the sources stay as they are.
usage: mutants.py [--count 300] [--seed 11] [--minutes M] [--jobs N] [--folders F,...] [--only PATTERN] | --check-marks"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import threading
import time

import mutant_faults

FOLDERS = ("runtime", "services", "msiregistry", "tasks", "components", "actions")
MARKS = pathlib.Path("tests", "mutants_unseen.txt")
# These tests take packages or programs that carry an unchanged copy of the DLL, or look at no fault of its code.
OTHER_TESTS = ("package", "support", "tool", "faults")
SLOWEST_PROGRAM_SECONDS = 280
HANG_FACTOR, HANG_SECONDS = 5, 60


def run(command, **how):
    return subprocess.run(command, capture_output=True, text=True, errors="replace", **how)


def tracked(root):
    return [name for name in run(["git", "ls-files", "-z"], cwd=root, check=True).stdout.split("\0") if name]


def product_files(root, folders):
    return [name for name in tracked(root)
            if name.split("/")[0] in folders and name.endswith((".cpp", ".h"))]


def all_faults(root, copy=None):
    """The faults of the sources; of those of a copy, which may be older."""
    source = copy or root
    return [fault for name in product_files(root, FOLDERS) if (source / name).exists()
            for fault in mutant_faults.faults_in(name, (source / name).read_text(encoding="utf-8"))]


def drawn(faults, seed):
    """The order in which faults are taken: the kinds take turns, so that the rare ones count as much; within a
    kind by a hash of the name, so that a change elsewhere in the sources leaves the rest of the order."""
    turns = []
    for kind in mutant_faults.KINDS:
        ranked = sorted((fault for fault in faults if fault.kind == kind),
                        key=lambda fault: hashlib.sha256(f"{seed}:{fault.name}".encode()).hexdigest())
        turns += [(turn, kind, fault) for turn, fault in enumerate(ranked)]
    return [fault for _, _, fault in sorted(turns, key=lambda entry: entry[:2])]


def read_marks(path):
    """The faults that no test can see: a name at the start of a line, the reason indented below it."""
    marks, name = {}, None
    for line in path.read_text(encoding="utf-8").splitlines() if path.exists() else []:
        if not line.strip() or line.startswith("#"):
            continue
        if line[0] != " ":
            name = line.strip()
            marks[name] = ""
        elif name:
            marks[name] = f"{marks[name]} {line.strip()}".strip()
    return marks


def mark_complaints(marks, faults):
    known = {fault.name for fault in faults}
    for name, reason in marks.items():
        if name not in known:
            yield f"no such fault any more: {name}"
        if not reason:
            yield f"no reason given: {name}"


class Coverage:
    """Which test programs look at a source file, the likeliest first."""

    def __init__(self, root, programs):
        self.texts, self.folders = {}, {}
        for program, sources in programs.items():
            self.folders[program] = sources[0].split("/")[1]
            self.texts[program] = "\n".join((root / source).read_text(encoding="utf-8") for source in sources)
        self.stems = {program: {pathlib.Path(source).stem for source in sources}
                      for program, sources in programs.items()}
        self.found = {}
        self.sources = {name: (root / name).read_text(encoding="utf-8") for name in product_files(root, FOLDERS)}

    def of(self, path):
        if path not in self.found:
            self.found[path] = self.find(path)
        return self.found[path]

    def find(self, path):
        mirrored = self.mirrored(path)
        naming = [program for program in self.texts if self.names(program, path)]
        # What only a user's work shows (which key is opened, and how) only the user's test can see.
        header = pathlib.Path(path).with_suffix(".h")
        including = [name for name, text in self.sources.items() if f'"{header}"' in text]
        users = [program for name in including for program in self.mirrored(name)]
        folder = [program for program in self.texts if self.folders[program] == path.split("/")[0]]
        return list(dict.fromkeys(mirrored + naming + users or folder))

    def mirrored(self, path):
        folder, stem = path.split("/")[0], pathlib.Path(path).stem
        return [program for program, stems in self.stems.items()
                if self.folders[program] == folder and f"{stem}_test" in stems]

    def names(self, program, path):
        header = str(pathlib.Path(path).with_suffix(".h"))
        exports = re.findall(r'__stdcall (\w+)\(', self.sources.get(path, ""))
        return f'"{header}"' in self.texts[program] or any(
            re.search(rf'\b{export}\b', self.texts[program]) for export in exports)


class Base:
    """Built sources without a fault. Everything for a mutant is made from their commands."""

    def __init__(self, source, build):
        self.source, self.build = source, build
        self.template, self.stage = self.build / "wine-template", self.build / "stage"
        self.building, self.wanted = threading.Lock(), set()
        self.programs, self.fixtures = {}, {}

    def copy_and_build(self, root, jobs):
        wanted = set(tracked(root))
        for name in run(["find", ".", "-path", "./build", "-prune", "-o", "-type", "f", "-print"],
                        cwd=self.source).stdout.split("\n") if self.source.exists() else []:
            if name and name[2:] not in wanted:
                (self.source / name).unlink()
        for name in wanted:
            copy_changed(root / name, self.source / name)
        self.need(["cmake", "--preset", "release", "-DCORVI_BUILD_TOOL=OFF"])
        self.read_commands()
        self.jobs = jobs
        self.build_target("stage")
        self.need(["sh", "tests/wine-template.sh", str(self.template)])

    def build_target(self, target):
        """Only what is asked for is built; the build tool works for one caller at a time, with what others want."""
        self.wanted.add(target)
        with self.building:
            if target not in self.wanted:
                return
            targets = sorted(self.wanted)
            self.need(["cmake", "--build", "--preset", "release", "-j", str(self.jobs), "--target", *targets])
            self.read_dependencies()
            self.wanted.difference_update(targets)

    def need(self, command):
        done = run(command, cwd=self.source)
        if done.returncode:
            raise SystemExit(f"mutants: '{shlex.join(command)}' failed\n{done.stdout[-3000:]}{done.stderr[-3000:]}")

    def read_commands(self):
        entries = json.loads((self.build / "compile_commands.json").read_text(encoding="utf-8"))
        entries = [entry for entry in entries if entry["file"].endswith(".cpp")]
        for entry in entries:
            entry["output"] = re.search(r' -o (\S+) ', entry["command"])[1]
        self.compile = {entry["output"]: entry["command"] for entry in entries}
        self.core = {name: entry["file"] for name, entry in self.entries(entries, "CMakeFiles/corvi_core.dir/")}
        self.programs, self.objects, self.fixtures = {}, {}, {}
        for name, entry in self.entries(entries, "tests/"):
            fixture = re.match(r'tests/(?:\w+/)?CMakeFiles/fixture_(\w+)\.dir/', name)
            if fixture and str(pathlib.Path(entry["file"]).relative_to(self.source)).startswith(FOLDERS):
                self.fixtures.setdefault(f"{fixture[1]}.exe", []).append(name)
            program = re.match(r'tests/(?:\w+/)?CMakeFiles/(\w+_test)\.dir/', name)
            if program:
                source = str(pathlib.Path(entry["file"]).relative_to(self.source))
                if program[0].split("/")[1] not in OTHER_TESTS:
                    self.programs.setdefault(program[1], []).append(source)
                    self.objects.setdefault(program[1], []).append(name)

    def read_dependencies(self):
        depends, owner = {}, None
        for line in run(["ninja", "-t", "deps"], cwd=self.build, check=True).stdout.split("\n"):
            if line[:1].strip():
                owner = line.split(":")[0]
            elif line.strip():
                path = os.path.normpath(os.path.join(self.build, line.strip()))
                depends.setdefault(path, set()).add(owner)
        self.depends = depends

    @staticmethod
    def entries(entries, start):
        return [(entry["output"], entry) for entry in entries if entry["output"].startswith(start)]

    def link(self, target):
        commands = run(["ninja", "-t", "commands", "-s", target], cwd=self.build, check=True).stdout.strip()
        return commands.split("\n")[-1].split(" && ")[1]

    def reached(self, program):
        """The product's objects that a program may run itself, beside the DLL: those of the headers that it
        includes and of the headers that these objects include, what no header announces and no action is, and the
        actions that it declares itself."""
        headers = {}
        for path, objects in self.depends.items():
            if path.endswith(".h") and path.startswith(tuple(f"{self.source / folder}/" for folder in FOLDERS)):
                for name in objects:
                    headers.setdefault(name, set()).add(path)
        of_header = {str(pathlib.Path(file).with_suffix(".h")): name for name, file in self.core.items()}
        found = {name for name, file in self.core.items() if not pathlib.Path(file).with_suffix(".h").exists()
                 and "__stdcall" not in pathlib.Path(file).read_text(encoding="utf-8")}
        found |= self.declared_actions(program)
        support = {name for name in headers if name.startswith("tests/") and "_test.dir/" not in name}
        left = [*self.objects[program], *support, *found]
        while left:
            new = {of_header[path] for path in headers.get(left.pop(), ()) if path in of_header} - found
            found |= new
            left += new
        return found

    def declared_actions(self, program):
        actions = re.compile(r'__stdcall (\w+)\(')
        declared = {action for source in self.programs.get(program, [])
                    for action in actions.findall((self.source / source).read_text(encoding="utf-8"))}
        return {name for name, file in self.core.items()
                if declared.intersection(actions.findall(pathlib.Path(file).read_text(encoding="utf-8")))}

    def dependents(self, path):
        return self.depends.get(str(self.source / path), set())


def copy_changed(source, target):
    if target.exists() and target.read_bytes() == source.read_bytes():
        return
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(source, target)


class Invalid(Exception):
    """The fault does not compile: no mutant."""


class Worker:
    """A folder of its own for one mutant at a time: sources, objects, stage."""

    def __init__(self, base, folder):
        self.base, self.folder = base, folder
        self.source, self.output, self.stage = folder / "source", folder / "output", folder / "stage"
        shutil.rmtree(folder, ignore_errors=True)
        shutil.copytree(base.source, self.source, ignore=shutil.ignore_patterns("build", ".git"))
        shutil.copytree(base.stage, self.stage)
        self.output.mkdir()

    def plant(self, fault):
        source = (self.base.source / fault.path).read_text(encoding="utf-8")
        (self.source / fault.path).write_text(fault.planted(source), encoding="utf-8")
        for left in self.output.iterdir():
            left.unlink()
        self.made = {}
        self.fault = fault
        for name in sorted(self.base.dependents(fault.path) & set(self.base.core)):
            self.make_object(name)
        self.make("unstripped/Corvi_CA.dll", self.stage / "Corvi_CA.dll", "-s")
        for fixture, objects in self.fixtures():
            for name in objects:
                self.make_object(name)
            self.make(f"stage/{fixture}", self.stage / fixture)

    def fixtures(self):
        """The programs of the tests that carry code of the product, and the fault with it."""
        objects = self.base.dependents(self.fault.path)
        return [(fixture, objects.intersection(made)) for fixture, made in self.base.fixtures.items()
                if objects.intersection(made)]

    def restore(self):
        shutil.copy(self.base.source / self.fault.path, self.source / self.fault.path)
        for fixture, _ in self.fixtures():
            shutil.copy(self.base.stage / fixture, self.stage / fixture)

    def make_object(self, name):
        if name in self.made:
            return
        made = self.output / (name.replace("/", "_"))
        command = self.base.compile[name].replace(f" -o {name}", f" -o {made}")
        command = re.sub(r' -M[TF] \S+| -MD', "", command).replace(
            f"-I{self.base.source} ", f"-I{self.source} ").replace(f" -c {self.base.source}/", f" -c {self.source}/")
        # A fault may leave a name unused: that alone makes it no invalid one.
        if run(["sh", "-c", command + " -w -g0"], cwd=self.base.build).returncode:
            raise Invalid(self.fault.name)
        self.made[name] = made

    def make(self, target, result, *options):
        """Links the target with what this mutant has made anew in place of the base's."""
        words = [str(self.made.get(word, word)) for word in shlex.split(self.base.link(target))
                 if not word.startswith(("-Wl,--pdb", "-Wl,--out-implib"))]
        words[words.index("-o") + 1] = str(result)
        if run([*words, *options], cwd=self.base.build).returncode:
            raise Invalid(self.fault.name)

    def program(self, name):
        """The test program with the fault in it; the base's own where it meets the fault in the DLL alone."""
        changed = [unit for unit in self.base.objects[name] if unit in self.base.dependents(self.fault.path)]
        if not changed and not self.base.reached(name) & set(self.made):
            return self.base.build / f"tests/{name}.exe"
        made = self.output / f"{name}.exe"
        for unit in changed:
            self.make_object(unit)
        self.make(f"tests/{name}.exe", made)
        return made


def run_program(base, stage, program, seconds):
    """'passed', 'failed', 'hung' or 'not run', with the name of the test that failed."""
    environment = dict(os.environ, CORVI_TEST_TIMEOUT=str(int(seconds)))
    environment.pop("CORVI_LIBRARY", None)
    for _ in range(2):
        done = run(["sh", str(base.source / "tests/run-wine.sh"), str(base.template), str(stage), str(program),
                    "--gtest_fail_fast"], env=environment)
        output = done.stdout + done.stderr
        failed = re.search(r'\[  FAILED  \] (\S+)', output)
        if "run-wine: timed out" in output:
            started = re.findall(r'\[ RUN      \] (\S+)', output)
            return "hung", started[-1] if started else ""
        if failed or "wine: Unhandled" in output:
            return "failed", failed[1].rstrip(",") if failed else "(crash)"
        if "[==========] Running" in output:
            started = re.findall(r'\[ RUN      \] (\S+)', output)
            return ("failed", f"{started[-1]} (ended the program)") if done.returncode else ("passed", "")
    return "not run", output[-300:]


class Campaign:
    """The mutants of one run and what became of them; results of earlier runs count while they hold."""

    def __init__(self, root, base, folder, jobs):
        self.root, self.base, self.file, self.lock = root, base, folder / "results.jsonl", threading.Lock()
        self.coverage = Coverage(root, base.programs)
        self.free = [Worker(base, folder / f"worker-{number}") for number in range(jobs)]
        self.tests = digest(base.source, [name for name in tracked(root)
                                           if name.startswith("tests/") and (base.source / name).exists()])
        self.limits, self.results = {}, {}
        for line in self.file.read_text(encoding="utf-8").splitlines() if self.file.exists() else []:
            result = json.loads(line)
            self.results[result["name"]] = result

    def known(self, fault):
        """What was caught stays caught while its file is the same; a survivor meets each change of the tests."""
        result = self.results.get(fault.name)
        if not result or result["source"] != digest(self.base.source, [fault.path]):
            return None
        return result if result["verdict"] != "survived" or result["tests"] == self.tests else None

    def build_for(self, faults):
        """The programs that are asked first, all at once: faster than one by one when they are needed."""
        self.base.wanted.update(self.coverage.of(fault.path)[0] for fault in faults if not self.known(fault))
        for program in sorted(self.base.wanted)[:1]:
            self.base.build_target(program)

    def limit(self, program):
        """Several times what the program takes without a fault; it has to pass then."""
        with self.lock:
            known = self.limits.get(program)
        if known:
            return known
        self.base.build_target(program)
        begun = time.monotonic()
        verdict, test = run_program(self.base, self.base.stage, self.base.build / f"tests/{program}.exe",
                                    SLOWEST_PROGRAM_SECONDS)
        if verdict != "passed":
            print(f"mutants: {program} {verdict} without a fault: {test}; not asked", file=sys.stderr, flush=True)
        seconds = min(SLOWEST_PROGRAM_SECONDS, HANG_FACTOR * (time.monotonic() - begun) + HANG_SECONDS)
        with self.lock:
            self.limits[program] = seconds if verdict == "passed" else -1
        return self.limits[program]

    def verdict(self, worker, fault):
        try:
            worker.plant(fault)
            for name in self.coverage.of(fault.path):
                limit = self.limit(name)
                if limit < 0:
                    continue
                verdict, test = run_program(self.base, worker.stage, worker.program(name), limit)
                if verdict == "not run":
                    return verdict, f"{name}: {test}"
                if verdict != "passed":
                    return "caught", f"{name}: {test}" + (" (hung)" if verdict == "hung" else "")
            return "survived", ", ".join(self.coverage.of(fault.path))
        except Invalid:
            return "invalid", ""
        finally:
            worker.restore()

    def judge(self, fault):
        with self.lock:
            worker = self.free.pop()
        try:
            verdict, by = self.verdict(worker, fault)
        finally:
            with self.lock:
                self.free.append(worker)
        result = {"name": fault.name, "verdict": verdict, "by": by, "tests": self.tests,
                  "source": digest(self.base.source, [fault.path])}
        with self.lock:
            self.results[fault.name] = result
            with self.file.open("a", encoding="utf-8") as file:
                file.write(json.dumps(result) + "\n")
            print(f"{verdict}: {fault.name}" + (f"  <- {by}" if verdict == "caught" else ""), flush=True)
        return result

    def run(self, faults, count, deadline):
        """Judges the faults in their order until 'count' are valid or the time is over; gives what was judged."""
        judged, jobs = [], len(self.free)
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            waiting, left = {}, iter(faults)
            while True:
                valid = sum(result["verdict"] in ("caught", "survived") for _, result in judged)
                while len(waiting) < jobs and valid + len(waiting) < count:
                    fault = next(left, None)
                    if not fault:
                        break
                    known = self.known(fault)
                    if known:
                        judged.append((fault, known))
                        valid += known["verdict"] in ("caught", "survived")
                    elif time.time() < deadline:
                        waiting[pool.submit(self.judge, fault)] = fault
                if not waiting:
                    return judged
                done, _ = concurrent.futures.wait(waiting, return_when=concurrent.futures.FIRST_COMPLETED)
                judged += [(waiting.pop(future), future.result()) for future in done]


def digest(root, names):
    total = hashlib.sha256()
    for name in sorted(names):
        total.update(name.encode() + (root / name).read_bytes())
    return total.hexdigest()[:16]


def table(judged, marks):
    """The score by folder; faults that no test can see count in neither column."""
    rows = []
    for folder in (*FOLDERS, "all"):
        verdicts = [(result["verdict"], fault.name in marks) for fault, result in judged
                    if folder in (fault.path.split("/")[0], "all")]
        caught = sum(verdict == "caught" for verdict, _ in verdicts)
        survived = sum(verdict == "survived" and not marked for verdict, marked in verdicts)
        unseen = sum(verdict == "survived" and marked for verdict, marked in verdicts)
        score = f"{100 * caught / (caught + survived):.1f} %" if caught + survived else "-"
        rows.append(f"| {folder} | {caught + survived + unseen} | {unseen} | {caught} | {survived} | {score} |")
    return "\n".join(["| folder | valid mutants | cannot be seen | caught | survived | score |",
                      "|---|---|---|---|---|---|", *rows])


def report(judged, marks, seed):
    by_verdict = {}
    for fault, result in judged:
        by_verdict.setdefault(result["verdict"], []).append((fault, result))
    print(f"\nseed {seed}: {len(judged)} planted, {len(by_verdict.get('invalid', []))} do not compile\n")
    print(table(judged, marks))
    survivors = [fault for fault, _ in by_verdict.get("survived", []) if fault.name not in marks]
    print("\nSurvivors:" if survivors else "\nNo survivors.")
    for fault in survivors:
        print(f"  {fault.name}")
    for fault, result in by_verdict.get("not run", []):
        print(f"  no verdict: {fault.name} ({result['by']})")
    for fault, _ in by_verdict.get("caught", []):
        if fault.name in marks:
            print(f"  marked as unseen, but caught: {fault.name}")
            survivors.append(fault)
    return 1 if survivors or "not run" in by_verdict else 0


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--root", type=pathlib.Path, default=pathlib.Path(__file__).resolve().parent.parent)
    parser.add_argument("--count", type=int, default=300, help="valid mutants to judge")
    parser.add_argument("--seed", type=int, default=11)
    parser.add_argument("--minutes", type=float, default=24 * 60, help="start no mutant after that time")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--folders", default=",".join(FOLDERS))
    parser.add_argument("--only", help="the mutants whose name matches this expression")
    parser.add_argument("--check-marks", action="store_true", help="only check tests/mutants_unseen.txt")
    asked = parser.parse_args(arguments)

    faults, marks = all_faults(asked.root), read_marks(asked.root / MARKS)
    complaints = list(mark_complaints(marks, faults))
    if complaints or asked.check_marks:
        print("\n".join(f"{MARKS}: {complaint}" for complaint in complaints), end="\n" if complaints else "",
              file=sys.stderr)
        return 1 if complaints else 0
    folder = asked.root / "build/mutants"
    base = Base(folder / "base", folder / "base/build/release")
    base.copy_and_build(asked.root, asked.jobs)
    wanted = [fault for fault in drawn(all_faults(asked.root, base.source), asked.seed) if fault.path.split("/")[0] in asked.folders.split(",")
              and (not asked.only or re.search(asked.only, fault.name))]
    campaign = Campaign(asked.root, base, folder, asked.jobs)
    campaign.build_for(wanted[:asked.count])
    judged = campaign.run(wanted, asked.count, time.time() + 60 * asked.minutes)
    return report(judged, marks, asked.seed)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
