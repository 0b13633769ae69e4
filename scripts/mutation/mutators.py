"""The small changes: where in a file each of them can be made, and what it looks like.

A change is text put in the place of a stretch of the file. It can be written in two ways: `plain`
makes it for good; `switched` leaves it to the running program, which makes the one change that the
environment names (see switch.h). Only with the second way can one build serve all changes.
"""

import re
from dataclasses import dataclass, field

from source import Source

ENDS = (",", ";", "?", ":", "=", "+=", "-=", "|=", "&=", "return", "case", "else")
COMPARISONS = ("<", "<=", ">", ">=", "==", "!=")
LOGIC = ("&&", "||")
ARITHMETIC = ("+", "-", "*", "/", "%", "&", "|", "<<", ">>")
SWAPS = {
    "<": ("<=", "Less"), "<=": ("<", "LessEqual"), ">": (">=", "Greater"),
    ">=": (">", "GreaterEqual"), "==": ("!=", "Equal"), "!=": ("==", "Unequal"),
    "+": ("-", "Plus"), "-": ("+", "Minus"), "*": ("+", "Times"), "/": ("*", "Divided"),
    "%": ("/", "Modulo"), "&": ("|", "And"), "|": ("&", "Or"), "<<": (">>", "ShiftLeft"),
    ">>": ("<<", "ShiftRight"),
}
NO_STATEMENT = {
    "return", "const", "constexpr", "static", "using", "namespace", "auto", "if", "for", "while",
    "do", "switch", "case", "default", "break", "continue", "goto", "extern", "template", "struct",
    "class", "enum", "typedef", "static_assert", "friend", "explicit", "public", "private",
    "operator", "throw", "inline", "unsigned", "union", "alignas", "volatile",
}


@dataclass
class Change:
    file: str
    line: int
    start: int
    end: int
    what: str  # for people, and part of its name
    plain: tuple  # (before, after): text around the stretch; or (text, None): in its place
    switched: tuple  # likewise, with \x01 for the number of the change
    name: str = ""
    number: int = 0
    tests: list = field(default_factory=list)


def changes_of(name, text):
    """All changes of a file, in the order in which they stand there."""
    source = Source(name, text)
    skipped = skipped_tokens(source)
    found = []
    for i in range(len(source.tokens)):
        if i not in skipped:
            for mutator in MUTATORS:
                found.extend(mutator(source, i))
    found.sort(key=lambda change: (change.start, -change.end))
    give_names(source, found)
    return found


def give_names(source, changes):
    """A name stays when lines move; of several changes that read alike the later are counted."""
    seen = {}
    for change in changes:
        line = " ".join(source.lines[change.line - 1].split())
        name = f"{change.file}: {line} [{change.what}]"
        seen[name] = seen.get(name, 0) + 1
        change.name = name if seen[name] == 1 else f"{name} #{seen[name]}"


def skipped_tokens(source):
    """What the compiler checks, what a release leaves out, or what is no code."""
    skipped = set()
    for i, token in enumerate(source.tokens):
        if token.text in ("static_assert", "assert", "__attribute__") and source.is_at(i + 1, "("):
            skipped.update(range(i, source.partner[i + 1] + 1))
        if token.text == "extern" and source.kind(i + 1) == "string":
            skipped.add(i + 1)
        if token.text == "[" and source.is_at(i + 1, "["):
            skipped.update(range(i, source.partner[i] + 1))
    return skipped


def make(source, first, last, what, plain, switched):
    start, end = source.tokens[first].start, source.tokens[last].end
    return Change(source.name, source.line_of(start), start, end, what, plain, switched)


def short(text):
    text = " ".join(text.split())
    return text if len(text) <= 60 else text[:57] + "..."


# --- operators ------------------------------------------------------------------------------------


def swapped_operator(source, i):
    token = source.tokens[i]
    if token.kind != "operator" or token.text not in SWAPS or not source.is_binary(i):
        return
    other, tag = SWAPS[token.text]
    between = f"{token.text} ::mutant::{tag}<\x01>{{}} {token.text}"
    yield make(source, i, i, f"{token.text} -> {other}", (other, None), (between, None))


def dropped_operand(source, i):
    """a && b: each of them taken for true; a || b: each of them taken for false."""
    if not source.is_at(i, *LOGIC) or not source.is_binary(i):
        return
    first, last = source.expression_around(i, ENDS)
    level = source.at_depth_of(i, first, last)
    if any(k < i and source.is_at(k, *LOGIC) for k in level):
        return  # the first operator of an expression speaks for all of them
    for begin, end in parts(source, level, first, last, "||"):
        if (begin, end) != (first, last):
            yield operand(source, begin, end, "false", "(!::mutant::on<\x01>() && (", "(false && (")
        inner = [k for k in level if begin <= k <= end]
        for left, right in parts(source, inner, begin, end, "&&"):
            if (left, right) != (begin, end):
                yield operand(source, left, right, "true", "(::mutant::on<\x01>() || (", "(true || (")


def parts(source, level, first, last, operator):
    begin = first
    for k in level:
        if source.is_at(k, operator):
            yield begin, k - 1
            begin = k + 1
    yield begin, last


def operand(source, first, last, value, switched, plain):
    what = f"{short(source.text_of(first, last))} -> {value}"
    return make(source, first, last, what, (plain, "))"), (switched, "))"))


def negated_condition(source, i):
    """Conditions without an operator of their own that could be changed."""
    if source.is_at(i, "if") and source.is_at(i + 1, "("):
        first, last = i + 2, source.partner[i + 1] - 1
    elif source.is_at(i, "?"):
        first, last = source.expression_around(i - 1, ENDS)
        last = i - 1
    else:
        return
    if not has_operator(source, first, last, COMPARISONS + LOGIC + (";", "=")):
        what = f"{short(source.text_of(first, last))} negated"
        yield make(source, first, last, what, ("!(", ")"), ("(::mutant::on<\x01>() != bool(", "))"))


def skipped_loop(source, i):
    if source.is_at(i, "while") and source.is_at(i + 1, "("):
        first, last = i + 2, source.partner[i + 1] - 1
        yield operand(source, first, last, "false", "(!::mutant::on<\x01>() && (", "(false && (")


def has_operator(source, first, last, operators):
    level = source.at_depth_of(first, first, last)
    return any(
        source.is_at(k, *operators) and (source.is_at(k, ";") or source.is_binary(k)) for k in level
    )


# --- values ---------------------------------------------------------------------------------------


def changed_constant(source, i):
    token = source.tokens[i]
    if token.kind == "number":
        other = other_number(token.text)
    elif token.kind == "char":
        other = other_char(token.text)
    elif token.text in ("true", "false"):
        other = "false" if token.text == "true" else "true"
    else:
        return
    switched = f"::mutant::pick<\x01>({token.text}, {other})"
    yield make(source, i, i, f"{token.text} -> {other}", (other, None), (switched, None))


def other_number(text):
    """0 for 1, else one more; of a time a third more, of a full word one less."""
    match = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[\d']+)(.*)", text)
    digits, rest = match.group(1).replace("'", ""), match.group(2)
    value = int(digits, 0) if digits[:2].lower() == "0x" else int(digits)
    if value == 1:
        value = 0
    elif rest in ("us", "ms", "s", "min", "h"):
        value += value // 3 + 1
    elif value >= 0xFF and value & (value + 1) == 0:
        value -= 1
    else:
        value += 1
    return (hex(value) if digits[:2].lower() == "0x" else str(value)) + rest


def other_char(text):
    body = text[1:-1]
    if body.startswith("\\"):
        return "' '"
    return "'" + chr(ord(body) + 1) + "'"


def changed_text(source, i):
    """Texts that stand side by side are one; the name of a format of <cinttypes> is part of it."""
    if source.kind(i) != "string" or is_text(source, i - 1):
        return
    last = i
    while is_text(source, last + 1):
        last += 1
    tokens = [token.text for token in source.tokens[i : last + 1]]
    for k, text in enumerate(tokens):
        other = other_text(text)
        if other != text:
            break
    changed = " ".join(tokens[:k] + [other] + tokens[k + 1 :])
    what = f"{short(tokens[k])} changed"
    switched = f"::mutant::pick_text<\x01>({source.text_of(i, last)}, {changed})"
    yield make(source, i, last, what, (changed, None), (switched, None))


def is_text(source, i):
    return source.kind(i) == "string" or (
        source.kind(i) == "name" and source.tokens[i].text.startswith("PRI")
    )


def other_text(text):
    """The first letter or digit that is no part of a format or an escape becomes the next one."""
    for match in re.finditer(r"%[-+ #0-9.*]*(?:hh|h|ll|l|z|j|t)?[a-zA-Z%]|\\.|([a-yA-Y0-8])", text):
        if match.group(1):
            k = match.start(1)
            return text[:k] + chr(ord(text[k]) + 1) + text[k + 1 :]
    return text[:-1] + '#"' if text.endswith('"') else text


def changed_result(source, i):
    """return of a name or a call: another value of its type."""
    if not source.is_at(i, "return") or source.is_at(i + 1, ";", "{"):
        return
    last = i + 1
    while not source.is_at(last + 1, ";"):
        last = source.partner[last + 1] if source.is_at(last + 1, "(", "[", "{") else last + 1
    is_constant = last == i + 1 and (
        source.kind(last) != "name" or source.is_at(last, "true", "false", "nullptr")
    )
    operators = COMPARISONS + LOGIC + ARITHMETIC + ("?",)
    if is_constant or has_operator(source, i + 1, last, operators) or source.is_at(i + 1, "-"):
        return
    what = f"{short(source.text_of(i + 1, last))} -> another value"
    yield make(
        source, i + 1, last, what, ("::mutant::other(", ")"), ("::mutant::other_if<\x01>(", ")")
    )


# --- statements -----------------------------------------------------------------------------------


def dropped_statement(source, i):
    if not source.is_at(i - 1, ";", "{", "}", ":") or source.tokens[i].text in NO_STATEMENT:
        return
    if source.is_at(i - 1, ":") and not is_label(source, i - 1):
        return
    if source.opener[i] is None or not source.is_at(source.opener[i], "{"):
        return  # behind the first semicolon of a for statement, or outside of all functions
    last = i
    while not source.is_at(last, ";"):
        if source.is_at(last, "{", "}", ")", "]", ":") or last + 1 >= len(source.tokens):
            return
        last = source.partner[last] + 1 if source.is_at(last, "(", "[") else last + 1
        if source.is_at(last - 1, "=") and source.is_at(last, "{"):
            last = source.partner[last] + 1
        elif source.is_at(last, "{"):
            return
    if last > i and is_statement(source, i, last - 1):
        what = f"{short(source.text_of(i, last))} dropped"
        yield make(source, i, last, what, ("if (false) {", "}"), ("if (!::mutant::on<\x01>()) {", "}"))


def is_label(source, i):
    while not source.is_at(i, ";", "{", "}", "?"):
        if source.is_at(i, "case", "default"):
            return True
        i -= 1
    return False


def is_statement(source, first, last):
    """A call, an assignment or a count; a declaration has two names, or a name and a reference."""
    level = source.at_depth_of(first, first, last)
    level = [k for k in level if k >= first]
    if source.is_at(first, "(") and source.is_at(first + 1, "void"):
        level = [k for k in level if k > first + 2]
    sign = next((k for k in level if source.is_at(k, *ASSIGNMENTS)), None)
    target = [k for k in level if sign is None or k < sign]
    for k, after in zip(target, target[1:]):
        if source.kind(k) == "name" and source.kind(after) == "name":
            return False
        if k != first and source.is_at(k, "*", "&", "<", ">", "~"):
            return False
        if source.is_at(k, ")") and source.is_at(after, "("):
            return False  # a pointer to a function is declared
    if sign is not None:
        return not source.is_at(sign + 1, "delete", "default")
    return source.is_at(last, ")", "++", "--") and source.kind(target[0]) in ("name", "operator")


ASSIGNMENTS = ("=", "+=", "-=", "*=", "/=", "|=", "&=", "<<=", ">>=", "^=", "%=")


def dropped_scope(source, i):
    """An object that is there for its scope alone: a lock, a state that is given back."""
    if not source.is_at(i, "const") or not source.is_at(i - 1, ";", "{", "}"):
        return
    last = i + 1
    while source.kind(last) == "name" and source.is_at(last + 1, "::"):
        last += 2
    variable = last + 1
    if source.kind(last) != "name" or source.kind(variable) != "name":
        return
    end = variable + 1
    if source.is_at(end, "("):
        end = source.partner[end] + 1
    if not source.is_at(end, ";") or source.opener[i] is None:
        return
    block_end = source.partner[source.opener[i]]
    if any(source.tokens[k].text == source.tokens[variable].text for k in range(end, block_end)):
        return
    type_name = source.text_of(i + 1, last)
    what = f"{short(source.text_of(i, end))} dropped"
    yield make(
        source, i + 1, last, what, (f"::mutant::Without<{type_name}>", None),
        (f"::mutant::Maybe<{type_name}, \x01>", None),
    )


MUTATORS = (
    swapped_operator, dropped_operand, negated_condition, skipped_loop, changed_constant,
    changed_text, changed_result, dropped_statement, dropped_scope,
)
