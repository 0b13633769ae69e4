"""A copy of the tree in which every change can be switched on, and the changes that need one of
their own: those in constants that the compiler has to know, for example."""

import json
import os
import re
import shlex
import shutil
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from source import Source

PRESET = "release"
INCLUDE = '#include "{header}"\n#line 1\n'
QUICK = "add_compile_options(-w -O1 -g0)\n"
QUIET = "add_compile_options(-w)\n"  # where another program compiles a file of src once more


class Scratch:
    """The copy; it is gone when its user is done with it, however that ends."""

    def __init__(self, root, jobs):
        self.root = Path(root)
        self.jobs = jobs
        self.path = Path(tempfile.mkdtemp(prefix="ruk-mutate-"))
        self.path.chmod(0o755)  # some tests start programs as another user
        self.binary = self.path / "build" / PRESET
        self.header = self.path / "src" / "switch.h"
        self.environment = dict(os.environ)
        if shutil.which("ccache"):
            self.environment |= {
                "CMAKE_CXX_COMPILER_LAUNCHER": "ccache", "CMAKE_C_COMPILER_LAUNCHER": "ccache",
                "CCACHE_BASEDIR": str(self.path), "CCACHE_NOHASHDIR": "1",
                "CCACHE_SLOPPINESS": "pch_defines,time_macros,include_file_mtime,"
                "include_file_ctime",
            }

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        shutil.rmtree(self.path, ignore_errors=True)

    def fill(self):
        files = self.call(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], self.root
        ).split("\0")
        for name in filter(None, files):
            if (self.root / name).is_file():
                (self.path / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(self.root / name, self.path / name)
        shutil.copy(self.root / "scripts" / "mutation" / "switch.h", self.header)
        for rules in self.path.rglob("CMakeLists.txt"):
            text = rules.read_text()
            if rules.parent == self.path / "src":
                rules.write_text(QUICK + text)
            elif re.search(r"SOURCE_DIR\}/src/\S+\.cpp", text):
                rules.write_text(QUIET + text)
        self.call(["cmake", "--preset", PRESET, "-DRUK_BENCH=OFF"], self.path)
        commands = json.loads((self.binary / "compile_commands.json").read_text())
        own = str(self.binary / "src")  # other programs may compile the same files once more
        self.commands = {e["file"]: e for e in commands if e["directory"] == own}

    def build(self, targets):
        command = ["cmake", "--build", "--preset", PRESET, "--parallel", str(self.jobs)]
        for target in targets:
            command += ["--target", target]
        self.call(command, self.path)

    def links(self):
        """How each program is linked: its name, and the file with the command.

        Not that of the simulation: it has a scheduler of its own, and no test that is run here.
        """
        found = [path for path in self.binary.rglob("link.txt")
                 if self.binary / "tests" / "simulation" not in path.parents]
        return {path.parent.name.removesuffix(".dir"): path for path in found}

    def compiles(self, name, text, output="/dev/null"):
        """The compiler's messages, or None when it has none."""
        entry = self.commands[str(self.path / "src" / name)]
        words = shlex.split(entry["command"])
        place = words.index("-o") + 1
        words[place] = str(output)
        words[words.index("-c") + 1 :] = ["-x", "c++", "-"]
        directory = str((self.path / "src" / name).parent)
        quick = ["-iquote", directory, "-O1", "-g0", "-fdiagnostics-color=never", "-Werror=vla"]
        words = [word for word in words if not word.startswith("-W")] + quick
        done = subprocess.run(
            words, input=text, text=True, capture_output=True, cwd=entry["directory"], check=False
        )
        return None if done.returncode == 0 else done.stderr

    def header_line(self, name):
        return INCLUDE.format(header=self.header) + f'#line 1 "{self.path / "src" / name}"\n'

    def call(self, command, directory):
        done = subprocess.run(
            command, cwd=directory, env=self.environment, text=True, capture_output=True,
            check=False,
        )
        if done.returncode != 0:
            output = done.stdout[-4000:] + done.stderr[-4000:]
            raise RuntimeError(f"{shlex.join(command)}:\n{output}")
        return done.stdout


# --- text with changes in it ----------------------------------------------------------------------


def render(text, changes, declarations=()):
    """The text with all changes in it, switched. They lie side by side or inside each other."""
    pieces = [(c.start, -c.end, c.switched, c.number) for c in changes]
    pieces += [(start, -end, (kind, None), 0) for start, end, kind in declarations]
    return _render(text, 0, len(text), sorted(pieces, key=lambda piece: piece[:2]))


def _render(text, start, end, pieces):
    result = []
    while pieces:
        begin, minus_last, form, number = pieces[0]
        last = -minus_last
        inner = [piece for piece in pieces[1:] if piece[0] < last]
        rest = pieces[1 + len(inner) :]
        result.append(text[start:begin])
        before, after = (part and part.replace("\x01", str(number)) for part in form)
        if after is None:
            result.append(before)
        else:
            result += [before, _render(text, begin, last, inner), after]
        start, pieces = last, rest
    return "".join(result) + text[start:end]


def with_one(text, change):
    """The text with one change made for good."""
    before, after = change.plain
    middle = "" if after is None else text[change.start : change.end]
    return text[: change.start] + before + middle + (after or "") + text[change.end :]


def crossing(changes):
    """Changes that overlap others without lying inside them, or that replace others."""
    out, stack = set(), []
    for change in sorted(changes, key=lambda c: (c.start, -c.end)):
        while stack and stack[-1].end <= change.start:
            stack.pop()
        if stack and (change.end > stack[-1].end or stack[-1].switched[1] is None):
            out.add(change.number)
        else:
            stack.append(change)
    return out


# --- what can be switched -------------------------------------------------------------------------


def constant_declarations(source):
    """Every constexpr: its place, the end of what it declares, and what takes its place."""
    found = []
    for i, token in enumerate(source.tokens):
        if token.text != "constexpr" or source.is_at(i - 1, "if"):
            continue
        last, kind = i + 1, None
        while not source.is_at(last, ";", "=", "{"):
            if source.is_at(last, "("):
                kind = ""
                last = source.partner[last]
            last += 1
        if kind is None:
            kind = "" if source.is_at(i + 1, "const") else "const"
        while not source.is_at(last, ";") and not (kind == "" and source.is_at(last, "}")):
            last = source.partner[last] if source.is_at(last, "{", "(", "[") else last + 1
            if kind == "" and source.is_at(last, "}"):
                break
            last = last + 1 if source.is_at(last, "}", ")", "]") else last
        found.append((i, last, kind))
    return [(source.tokens[a].start, source.tokens[a].end, source.tokens[z].end, kind)
            for a, z, kind in found]


def starting_values(source, changes, declarations):
    """Changes of variables that are there before the program runs; switched they come late."""
    inside = [(start, end) for start, _, end, _ in declarations]
    inside += source.blocks()
    return {c.number for c in changes if not any(a < c.start < z for a, z in inside)}


def switch_file(scratch, name, text, changes):
    """Puts the file in the scratch tree with as many changes as compile; returns the others."""
    source = Source(name, text)
    declarations = constant_declarations(source)
    left_out = crossing(changes) | starting_values(source, changes, declarations)
    for _ in range(40):
        active = [change for change in changes if change.number not in left_out]
        used = [d for d in declarations if any(d[0] < c.start < d[2] for c in active)]
        result = scratch.header_line(name) + render(
            text, active, [(start, end, kind) for start, end, _, kind in used]
        )
        messages = scratch.compiles(name, result)
        if messages is None:
            (scratch.path / "src" / name).write_text(result)
            return [change for change in changes if change.number in left_out]
        lines = {int(n) for n in re.findall(rf"{re.escape(name)}:(\d+):", messages)}
        bad = {c.number for c in active if touches(source, c.start, c.end, lines)}
        for start, _, end, _ in used:
            if touches(source, start, end, lines):
                bad |= {c.number for c in active if start < c.start < end}
        if not bad:  # a constant that the compiler has to know may stand further up
            words = {word for line in lines if 0 < line <= len(source.lines)
                     for word in re.findall(r"\w+", source.lines[line - 1])}
            for start, _, end, _ in used:
                if re.search(r"(\w+)\s*(?:\[|=|\{|$)", text[start:end]).group(1) in words:
                    bad |= {c.number for c in active if start < c.start < end}
        if not bad:  # or be named by the message
            words = set(re.findall(r"\w+", " ".join(re.findall("‘(.*?)’", messages))))
            lines = {n for n, line in enumerate(source.lines, 1)
                     if words & set(re.findall(r"\w+", line))}
            bad = {c.number for c in active if touches(source, c.start, c.end, lines)}
        if not bad:
            bad = {c.number for d in used for c in active if d[0] < c.start < d[2]}
        left_out |= bad or {change.number for change in active}
    raise RuntimeError(f"{name}: does not compile with switches")


def touches(source, start, end, lines):
    return any(line in lines for line in range(source.line_of(start), source.line_of(end) + 1))


def switch_all(scratch, changes_by_file):
    """Returns the changes that cannot be switched."""
    with ThreadPoolExecutor(scratch.jobs) as pool:
        left = pool.map(
            lambda name: switch_file(
                scratch, name, (scratch.root / "src" / name).read_text(), changes_by_file[name]
            ),
            changes_by_file,
        )
        return [change for some in left for change in some]
