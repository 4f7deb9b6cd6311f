"""Makes docs/proof.md out of what the scripts left in build/proof and what the tests left in build/*/tests.xml.

A section whose script has not run here since stays as it stands, with its date. --check: each section is one that its
script leaves.
"""
import os
import re
import shutil
import subprocess
import sys
import time
import xml.etree.ElementTree as xml

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LEFT = os.path.join(ROOT, "build", "proof")
PAGE = os.path.join(ROOT, "docs", "proof.md")
PRESETS = ["debug", "asan", "tsan", "arm64"]

# Kinds of tests, by folder of tests/.
KINDS = [
    ("values, messages, media, handshake", "amf optimised.amf message media instruments net"),
    ("sessions, commands, frames on their way", "core serve command state delivery sender rtmpt"),
    ("failing calls", "failing"),
    ("a scripted player, byte by byte", "wire players_of_today"),
    ("the steady road", "steady steady_tls"),
    ("TLS", "tls"),
    ("publishing to a scripted service", "publish publisher"),
    ("real players and services", "players"),
    ("fuzzing: inputs replayed, invented input", "fuzz"),
    ("exported names, layouts, consumers", "abi"),
    ("the reference hosts and tools", "examples tools"),
    ("what judges the soak", "soak"),
    ("the sources themselves", "house"),
]
SANITIZERS = {
    "debug": "none",
    "asan": "address, undefined, leak",
    "tsan": "thread",
    "arm64": "none; 64-bit ARM",
}
READERS = {
    "abi.ExportedNames": "exported names are those of `tests/abi/exported_names.txt`",
    "abi.UndefinedNames": "undefined names are those of `tests/abi/host_names.txt`",
    "abi.SourcesAreCxx20": "a build as C++20",
    "abi.HeadersAreC": "the headers are C11",
}

# name of what a script leaves, title, command
SECTIONS = [
    ("tests", "Tests", "scripts/test.sh"),
    ("readers", "Static analysis", "scripts/analyse.sh"),
    ("fuzz", "Fuzzing", "scripts/fuzz.sh SECONDS"),
    ("failures", "Every failure once", "scripts/failures.sh"),
    ("texts", "Every fixed text", "scripts/texts.sh"),
    ("inputs", "Bad input", "scripts/test.sh debug"),
    ("stress", "Stress under the thread sanitizer", "scripts/stress.sh MINUTES"),
    ("soak", "Soak", "scripts/soak.sh MINUTES"),
    ("coverage", "Coverage", "scripts/coverage.sh"),
    ("large", "Bad input of gigabytes", "scripts/large.sh"),
    ("size", "Size", "scripts/size.sh"),
]
# The name of what a script leaves for a section, where it is another.
MADE_OF = {"readers": "analysis"}


def cases_of(preset):
    """[(name, passed)] of the preset's last run, and when that was."""
    file = os.path.join(ROOT, "build", preset, "tests.xml")
    if not os.path.exists(file):
        return [], None
    cases = []
    for case in xml.parse(file).getroot().iter("testcase"):
        # A folder that runs in one process says how many passed in it; it fails as one.
        many = re.search(r"^\[  PASSED  \] (\d+) tests\.$", case.findtext("system-out") or "", re.M)
        cases += [(case.get("name"), case.get("status") == "run")]
        cases += [(case.get("name"), True)] * (int(many.group(1)) - 1 if many else 0)
    return cases, os.path.getmtime(file)


def note_of(preset):
    """Of which revision the preset's last run was, and what it left out."""
    file = os.path.join(ROOT, "build", preset, "tests.note")
    if not os.path.exists(file):
        return "not noted", "not noted"
    revision, *lists = open(file, encoding="utf-8").read().split()
    return revision, " and ".join(f"without `{name}`" for name in lists) or "all"


def kind_of(name):
    return next((kind for kind, folders in KINDS for folder in folders.split() if name.startswith(folder + ".")), None)


def tests():
    counts, times, bad = {}, [], []
    for preset in PRESETS:
        cases, when = cases_of(preset)
        if not cases:
            return None, None
        times.append(when)
        for name, passed in cases:
            kind = kind_of(name) or sys.exit(f"{name}: of no kind; scripts/proof.py names the kinds of tests")
            counts[kind, preset] = counts.get((kind, preset), 0) + 1
            if not passed:
                bad.append(f"{preset}: {name}")
    lines = ["| | " + " | ".join(f"`{preset}`" for preset in PRESETS) + " |", "|---|" + "---|" * len(PRESETS)]
    notes = [note_of(preset) for preset in PRESETS]
    for what, cells in (("sanitizers", [SANITIZERS[preset] for preset in PRESETS]),
                        ("revision", [revision for revision, _ in notes]), ("which", [lists for _, lists in notes])):
        lines.append(f"| {what} | " + " | ".join(cells) + " |")
    for kind, _ in KINDS:
        lines.append(f"| {kind} | " + " | ".join(str(counts.get((kind, preset), 0)) for preset in PRESETS) + " |")
    totals = [sum(count for (_, of), count in counts.items() if of == preset) for preset in PRESETS]
    lines.append("| **all** | " + " | ".join(f"**{total}**" for total in totals) + " |")
    lines += ["", f"{sum(totals) - len(bad)} passed, {len(bad)} failed{': ' + ', '.join(bad) if bad else ''}. The lists "
              "in `tests/left_out` say what is left out, and why; `scripts/test.sh --all` leaves out only what the emulator cannot run."]
    return "\n".join(lines), min(times)


def readers():
    found = dict(cases_of("debug")[0])
    if not found:
        return None, None
    missing = [name for name in READERS if name not in found]
    if missing:
        sys.exit(f"{missing}: no such test; scripts/proof.py names those that read the sources")
    body, when = left_by_a_script(MADE_OF["readers"])
    if body is None:
        return None, None
    lines = [f"| `{name}` | {what} | {'nothing' if found[name] else '**something**'} |" for name, what in READERS.items()]
    return "\n".join([body, *lines]), when


def inputs():
    cases, when = cases_of("debug")
    if ("house.EveryBadInputIsAskedByATest", True) not in cases:
        return None, None
    table = open(os.path.join(ROOT, "tests", "bad_input.md"), encoding="utf-8").read()
    rows, of = {}, None
    for line in table.splitlines():
        if line.startswith("## "):
            of = line[3:]
        elif of and line.startswith("| ") and not line.startswith(("| input", "|-")):
            rows[of] = rows.get(of, 0) + 1
    text = (f"{sum(rows.values())} kinds of bad input, each with the tests that send it, in `tests/bad_input.md`; "
            "`house.EveryBadInputIsAskedByATest` holds every name against the tests.")
    lines = ["| class | kinds |", "|---|---|"] + [f"| {of} | {count} |" for of, count in rows.items()]
    return text + "\n\n" + "\n".join(lines), when


def left_by_a_script(name):
    file = os.path.join(LEFT, name + ".md")
    if not os.path.exists(file):
        return None, None
    text = open(file, encoding="utf-8").read()
    return re.sub(r"\A(# .*\n)?\n*", "", text).strip(), os.path.getmtime(file) # the page has titles of its own


def check(sections):
    """Sections whose script is not there, or leaves nothing of the name that is read here."""
    wrong = []
    for name, _, command in sections:
        script = os.path.join(ROOT, command.split()[0])
        leaves = "tests.xml" if name in ("tests", "inputs") else f"{MADE_OF.get(name, name)}.md"
        if not os.path.exists(script) or leaves not in open(script, encoding="utf-8").read():
            wrong.append(f"{name}: {command} does not leave {leaves}")
    return wrong


def command_and_date(name, command, when):
    """The line in front of a section: as the script noted it when it began, where it did."""
    file = os.path.join(LEFT, MADE_OF.get(name, name) + ".note")
    if os.path.exists(file):
        return open(file, encoding="utf-8").read().strip()
    revision = f", revision {note_of('debug')[0]}" if name == "inputs" else ""
    return f"`{command}`, {time.strftime('%Y-%m-%d', time.localtime(when))}{revision}"


def old_sections():
    if not os.path.exists(PAGE):
        return {}
    text = open(PAGE, encoding="utf-8").read()
    return {name: body.strip() for name, body in re.findall(r"<!-- (\w+) -->\n(.*?)(?=\n<!-- \w+ -->|\Z)", text, re.S)}


def main():
    if sys.argv[1:] == ["--check"]:
        if not check([("nothing", "", "scripts/size.sh")]) or not check([("size", "", "scripts/no_such.sh")]):
            sys.exit("a wrong section went unnoticed")
        sys.exit("\n".join(check(SECTIONS)) or 0)
    os.makedirs(LEFT, exist_ok=True)
    old = old_sections()
    revision = subprocess.run([os.path.join(ROOT, "scripts", "revision.sh")], capture_output=True, text=True).stdout.strip()
    page = ["# Proof", "", f"Made by `scripts/proof.sh` at revision {revision} out of what the commands below left, each of the "
            "revision that its section", "names; no figure is written by hand. `CONTRIBUTING.md` says what runs on every "
            "change and what on demand.", ""]
    missing = []
    for name, title, command in SECTIONS:
        body, when = {"tests": tests, "readers": readers, "inputs": inputs}.get(name, lambda: left_by_a_script(name))()
        page.append(f"<!-- {name} -->")
        if body is not None:
            page += [f"## {title}", "", command_and_date(name, command, when), "", body, ""]
        elif name in old and not old[name].endswith("has not run."):
            page += [old[name], ""]
        else:
            page += [f"## {title}", "", f"`{command}` has not run.", ""]
            missing.append(command)
    picture = os.path.join(LEFT, "soak.png")
    if os.path.exists(picture):
        shutil.copyfile(picture, os.path.join(ROOT, "docs", "soak.png"))
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write("\n".join(page).rstrip() + "\n")
    for command in missing:
        print(f"not run yet: {command}")
    print(f"docs/proof.md: {len(SECTIONS) - len(missing)} of {len(SECTIONS)} sections")


main()
