#!/usr/bin/env python3
"""Changes the pure parts of src/ in small ways, one at a time, and sees whether their tests notice.

Called by mutate.sh with a configured build folder. A changed source file lies in a scratch folder;
it is compiled with the command of the original and linked in front of the library that holds the
original. The checkout is only read.

A change that does not compile, or compiles to the same bytes, is none: another one is drawn.
"""
import argparse
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

# Parsers, classifier, rates, throttle, settings: what needs no process and no network.
STEMS = [
    "spots/all_txt", "spots/message", "spots/callsign", "spots/mode", "spots/cty", "spots/country",
    "spots/log_reader", "spots/spot_queue", "history/history_reader", "api/band_plan",
    "api/rate_index", "api/rate_series", "api/token_gate", "server/settings", "server/json_text",
]

# Programs of a neighbour that exercise a stem as much as its own do.
NEIGHBOURS = {"api/rate_index": ["rate_series_fuzz", "rate_series_test"]}

# What stands between blanks in code laid out by clang-format, so that no template is meant.
SWAPS = {
    "<": ["<="], "<=": ["<"], ">": [">="], ">=": [">"], "==": ["!="], "!=": ["=="],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "+=": ["-="], "-=": ["+="],
    "&&": ["||"], "||": ["&&"], "&": ["|"], "|": ["&"],
}
OPERATOR = re.compile(r"(?<= )(%s)(?= )" % "|".join(map(re.escape, SWAPS)))
STEP = re.compile(r"\+\+|--")
NUMBER = re.compile(r"(?<![\w.'])(\d[\d']*)(?![\w.'])")
TRUTH = re.compile(r"\b(true|false)\b")
CONDITION = re.compile(r"^(\s*(?:\} else )?(?:if|while) \()(.*)(\)(?: \{| [^()]*;| return .*;)?)$")
STATEMENT = re.compile(r"^\s+[^\s#/}].*;$")
KEPT = re.compile(r"^\s+(return\b.|using\b|const\b|constexpr\b|static|throw\b|auto\b|default:|case\b)")


def code_only(line):
    """The line with string and character literals and comments blanked out."""
    line = re.sub(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])\'', lambda m: "\0" * len(m.group()), line)
    return re.sub(r"//.*", lambda m: "\0" * len(m.group()), line)


def changes_of(lines):
    """Every (line number, new text) that differs in one place."""
    for number, line in enumerate(lines):
        code = code_only(line)
        if not code.strip("\0 ") or line.startswith(("#", "namespace", "using", "template")):
            continue

        def put(match, text):
            return number, line[:match.start()] + text + line[match.end():]

        for match in OPERATOR.finditer(code):
            for other in SWAPS[match.group()]:
                yield put(match, other)
        for match in STEP.finditer(code):
            yield put(match, "--" if match.group() == "++" else "++")
        for match in NUMBER.finditer(code):
            value = int(match.group().replace("'", ""))
            yield put(match, str(value + 1))
            if value > 0:
                yield put(match, str(value - 1))
        for match in TRUTH.finditer(code):
            yield put(match, "false" if match.group() == "true" else "true")
        match = CONDITION.match(line)
        if match and match.group(2).count("(") == match.group(2).count(")"):
            yield number, f"{match.group(1)}!({match.group(2)}){match.group(3)}"
        before = lines[number - 1].rstrip() if number else ""
        if STATEMENT.match(line) and not KEPT.match(line) and before.endswith((";", "{", "}", ":")):
            yield number, line[:len(line) - len(line.lstrip())] + ";"


class Workshop:
    """Compiles, links and runs with the commands of the build folder."""

    def __init__(self, checkout, build, scratch):
        self.checkout, self.build, self.scratch = checkout, build, scratch
        entries = json.loads((build / "compile_commands.json").read_text())
        self.compile = {entry["file"]: entry["command"] for entry in entries}
        self.links, self.seconds, self.objects = {}, {}, {}

    def programs(self, stem):
        """The replay of the corpus of a stem, which ends sooner, and its tests."""
        name = stem.split("/")[1]
        source = self.checkout / "src" / stem
        own = [name + kind for kind in ("_fuzz", "_test") if Path(f"{source}{kind}.cpp").exists()]
        more = (self.checkout / "tests/stems").glob(f"{name}_*_test.cpp")
        return own + sorted(path.stem for path in more) + NEIGHBOURS.get(stem, [])

    def build_programs(self):
        programs = [program for stem in STEMS for program in self.programs(stem)]
        subprocess.run(["cmake", "--build", self.build, "--target", *programs],
                       check=True, stdout=sys.stderr)

    def arguments(self, program):
        corpus = self.checkout / "tests/corpus" / program.removesuffix("_fuzz")
        return [str(corpus)] if program.endswith("_fuzz") else []

    def prepare(self, stem):
        """Learns the commands, the object file and the usual running times of a stem."""
        source = self.checkout / "src" / f"{stem}.cpp"
        self.objects[stem] = self.compiled(stem, source, self.scratch / f"{source.stem}.o")
        for program in self.programs(stem):
            listed = subprocess.run(["ninja", "-C", self.build, "-t", "commands", program],
                                    capture_output=True, text=True, check=True).stdout
            steps = listed.strip().splitlines()[-1].split(" && ")
            self.links[program] = next(s for s in steps if f" -o {program} " in s)
            begin = time.monotonic()
            if not self.passes(self.build / program, self.arguments(program), 600):
                sys.exit(f"{program} fails without any change")
            self.seconds[program] = time.monotonic() - begin

    def compiled(self, stem, source, target):
        """The bytes of the object file, None when it does not compile."""
        words = shlex.split(self.compile[str(self.checkout / "src" / f"{stem}.cpp")])
        words[words.index("-o") + 1] = str(target)
        words[words.index("-c") + 1] = str(source)
        words = [w for w in words if w != "-Werror"] + ["-w", "-frandom-seed=1"]
        done = subprocess.run(words, cwd=self.build, capture_output=True)
        return target.read_bytes() if done.returncode == 0 else None

    def passes(self, program, arguments, patience):
        try:
            return subprocess.run([program, *arguments], cwd=self.scratch, timeout=patience,
                                  env=os.environ | {"GTEST_FAIL_FAST": "1"},
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def judge(self, stem, text):
        """'killed', 'survived', or None when the change is none."""
        with tempfile.TemporaryDirectory(dir=self.scratch) as folder:
            return self.judge_in(Path(folder), stem, text)

    def judge_in(self, folder, stem, text):
        source, target = folder / f"{stem.split('/')[1]}.cpp", folder / "changed.o"
        source.write_text(text)
        built = self.compiled(stem, source, target)
        if built is None or built == self.objects[stem]:
            return None
        for program in self.programs(stem):
            mine = folder / program
            link = self.links[program].replace(f" -o {program} ", f" -o {mine} {target} ", 1)
            if subprocess.run(link, shell=True, cwd=self.build, capture_output=True).returncode:
                return None
            if not self.passes(mine, self.arguments(program), 10 + 10 * self.seconds[program]):
                return "killed"
        return "survived"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--checkout", type=Path, required=True)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--scratch", type=Path, required=True)
    parser.add_argument("--jobs", type=int, required=True)
    parser.add_argument("--count", type=int, required=True)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    shop = Workshop(options.checkout, options.build, options.scratch)

    shop.build_programs()
    drawn = []
    for stem in STEMS:
        source = options.checkout / "src" / f"{stem}.cpp"
        if not source.exists():
            sys.exit(f"{source} is gone: bring the list of stems up to date")
        shop.prepare(stem)
        lines = source.read_text().splitlines()
        drawn += [(stem, lines, number, text) for number, text in changes_of(lines)]
    possible = len(drawn)
    random.Random(options.seed).shuffle(drawn)

    def attempt(change):
        stem, lines, line, text = change
        return shop.judge(stem, "\n".join([*lines[:line], text, *lines[line + 1:]]) + "\n")

    counts, survivors = {stem: [0, 0] for stem in STEMS}, []
    total = killed = 0
    with ThreadPoolExecutor(options.jobs) as pool:
        while drawn and total < options.count:
            wanted = options.count - total
            batch, drawn = drawn[:wanted], drawn[wanted:]
            for (stem, lines, line, text), verdict in zip(batch, pool.map(attempt, batch)):
                if verdict is None:
                    continue
                total += 1
                killed += verdict == "killed"
                counts[stem][verdict == "killed"] += 1
                if verdict == "survived":
                    survivors.append(f"src/{stem}.cpp:{line + 1}\n  - {lines[line].strip()}\n"
                                     f"  + {text.strip()}")
    for stem, (survived, dead) in counts.items():
        print(f"{stem:24} {dead:4} killed {survived:4} survived")
    print("\n".join(sorted(survivors)))
    print(f"{killed} of {total} killed ({100 * killed / max(total, 1):.1f} %), "
          f"drawn from {possible} with seed {options.seed}")
    return 0 if killed >= 0.9 * total else 1


sys.exit(main())
