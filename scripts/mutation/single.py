"""Changes that need a build of their own: one object and what is linked with it."""

import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path

from build import with_one
from source import Source


class Single:
    """One change, made for good."""

    def __init__(self, scratch, links, change, text):
        self.scratch, self.links = scratch, links
        self.change, self.text = change, text
        self.directory = Path(tempfile.mkdtemp(dir=scratch.path))
        self.object = self.directory / "changed.o"
        self.linked = {}

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        shutil.rmtree(self.directory, ignore_errors=True)

    def compiles(self):
        name = self.change.file
        text = self.scratch.header_line(name) + with_one(self.text, self.change)
        return self.scratch.compiles(name, text, self.object) is None

    def ready_for(self, group):
        """The programs that these tests run, with the change in them; by their usual places."""
        wanted = [group[0].program]
        if group[0].is_system:
            wanted += [str(path) for path in (self.scratch.binary / "bin").iterdir()]
        return {program: new for program in wanted if (new := self._link(program)) is not None}

    def _link(self, program):
        if program not in self.linked:
            self.linked[program] = self._linked_anew(program)
        return self.linked[program]

    def _linked_anew(self, program):
        entry = self.scratch.commands[str(self.scratch.path / "src" / self.change.file)]
        words = shlex.split(entry["command"])
        usual = (Path(entry["directory"]) / words[words.index("-o") + 1]).resolve()
        link = self.links.get(Path(program).name)
        if link is None:
            return None
        directory = link.parent.parent.parent
        words = shlex.split(link.read_text())
        if not any((directory / word).resolve() == usual for word in words if word.endswith(".o")):
            return None
        words = [
            str(self.object) if word.endswith(".o") and (directory / word).resolve() == usual
            else word for word in words
        ]
        new = self.directory / Path(program).name
        words[words.index("-o") + 1] = str(new)
        subprocess.run(words, cwd=directory, check=True, capture_output=True)
        return str(new)


def function_around(source, change):
    """The outermost block around the change, or None."""
    around = [(a, z) for a, z in source.blocks() if a < change.start < z]
    return around[0] if around else None


def cases_for(change, text, neighbours, cases):
    """Tests that come to a place next to the change: in its function, else anywhere in the file.

    neighbours: the changes of the file that are switched, and tell who comes to them. What stands
    outside of all functions may be looked at by tests that come to none.
    """
    stretch = function_around(Source(change.file, text), change)
    near = {c.number for c in neighbours if stretch and stretch[0] < c.start < stretch[1]}
    if near:
        return [case for case in cases if case.seen & near]
    everywhere = {c.number for c in neighbours}
    programs = {case.program for case in cases if case.seen & everywhere}
    return [case for case in cases if case.program in programs]
