"""The changes that nobody has to notice, with the reasons why: scripts/mutation/accepted.txt.

A line that starts without a blank is the name of a change, as scripts/mutate prints it. The lines
behind it, indented, say why it changes nothing. Several names in a row share their reason.
"""


def read_accepted(path):
    accepted, names = {}, []
    has_reason = True
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("//"):
            continue
        if line[0] != " ":
            names = [] if has_reason else names
            has_reason = False
            if line in accepted:
                raise ValueError(f"{path}:{number}: listed twice: {line}")
            names.append(line)
            accepted[line] = ""
            continue
        if not names:
            raise ValueError(f"{path}:{number}: a reason without a change")
        has_reason = True
        for name in names:
            accepted[name] = f"{accepted[name]} {line.strip()}".strip()
    for name, reason in accepted.items():
        if not reason:
            raise ValueError(f"{path}: no reason is given for: {name}")
    return accepted
