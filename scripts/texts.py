"""Fixed texts of the library's sources, and the tests that produce them; scripts/texts.sh runs this.

Every string literal of the rooms is a text, adjacent ones joined, but for those that no program contains: messages of
static_assert, attributes, pragmas, names of files to include. A text is produced when it was seen outside:

  - a format, as a whole line, with anything in the place of %s and numbers in the place of %d; a line of the log must
    also name the procedure that stands behind the text in the sources; a format of nothing but %s and %d: as any text of
    its form that is no line of the log
  - a text that others hold (a reason, a name) within a line of the log
  - any other exactly: an AMF0 text on a connection, an argument of a host function
"""
import collections
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOMS = ("amf command core delivery host_defaults include instruments media message net publish rtmpt serve state "
         "steady").split()
LIST = "tests/texts_unreached.txt"
OUT = "build/proof/texts.md"

Token = collections.namedtuple("Token", "kind text line")
Text = collections.namedtuple("Text", "path line text who")
Seen = collections.namedtuple("Seen", "kind test text")

TOKEN = re.compile(r'''(?P<comment>//[^\n]*|/\*.*?\*/)|(?P<string>"(?:\\.|[^"\\\n])*")'''
                   r'''|(?P<character>'(?:\\.|[^'\\\n])*')|(?P<name>[A-Za-z_]\w*)|(?P<other>\S)''', re.S)
# Formats of <inttypes.h> between two pieces of a literal.
LENGTHS = re.compile(r"PRI[diux](?:8|16|32|64|MAX|PTR)$")
# In front of a literal that is no text of the program; "(" alone belongs to an attribute.
NO_TEXT = {"include", "extern", "diagnostic", "ignored"}


def rooms_files():
    for room in ROOMS:
        for where, folders, names in os.walk(os.path.join(ROOT, room)):
            folders.sort()
            for name in sorted(names):
                if name.endswith((".cpp", ".h")):
                    yield os.path.relpath(os.path.join(where, name), ROOT)


def tokens_of(source):
    source = re.sub(r"\\\n", "  \n", source)
    tokens = []
    line, at = 1, 0
    for match in TOKEN.finditer(source):
        line += source.count("\n", at, match.start())
        at = match.start()
        if match.lastgroup != "comment":
            tokens.append(Token(match.lastgroup, match[0], line))
    return tokens


def function_names(source):
    """(line, name) of every function whose opening brace stands alone in the first column."""
    lines = source.split("\n")
    names = []
    for number, line in enumerate(lines):
        if line.rstrip() != "{":
            continue
        first = number
        while first > 0 and lines[first - 1].strip() and not lines[first - 1].startswith(("}", "#", "//")):
            first -= 1
        header = re.sub(r"__attribute__\(\(.*?\)\)+", "", " ".join(lines[first:number]))
        match = re.search(r"(\w+)\s*\(", header)
        if match:
            names.append((number + 1, match[1]))
    return names


def statement_of(tokens, index):
    """The tokens from the start of the statement up to this one."""
    first = index
    while first > 0 and tokens[first - 1].text not in ";{}":
        first -= 1
    return tokens[first:index]


def is_text(tokens, index):
    before = [token.text for token in statement_of(tokens, index)]
    previous = tokens[index - 1].text if index else ""
    if previous in NO_TEXT or "static_assert" in before or (previous == "(" and "__attribute__" in before[-6:]):
        return False
    return not (previous == "(" and tokens[index - 2].text == "visibility")


def caller_of(tokens, after, functions, constants):
    """Whom a log text names: the token behind it, as a procedure's name; None: it may be anybody."""
    if after + 2 >= len(tokens) or tokens[after].text != "," or tokens[after + 2].text not in (",", ")"):
        return None
    who = tokens[after + 1]
    if who.kind == "string":
        return who.text[1:-1]
    if who.text == "__func__":
        known = [name for line, name in functions if line <= who.line]
        return known[-1] if known else None
    known = [value for line, name, value in constants if name == who.text and line <= who.line]
    return known[-1] if known else None


def constants_of(tokens):
    """(line, name, value) of every name = "value" and name[] = "value"."""
    found = []
    for i in range(4, len(tokens)):
        if tokens[i].kind == "string" and tokens[i - 1].text == "=":
            name = tokens[i - 4] if tokens[i - 2].text == "]" else tokens[i - 2]
            found.append((tokens[i].line, name.text, tokens[i].text[1:-1]))
    return found


def texts_of(path):
    with open(os.path.join(ROOT, path)) as file:
        source = file.read()
    tokens = tokens_of(source)
    functions = function_names(source)
    constants = constants_of(tokens)
    texts = []
    index = 0
    while index < len(tokens):
        if tokens[index].kind != "string":
            index += 1
            continue
        first = index
        pieces = []
        while index < len(tokens) and (tokens[index].kind == "string" or LENGTHS.match(tokens[index].text)):
            pieces.append(tokens[index].text[1:-1] if tokens[index].kind == "string" else tokens[index].text)
            index += 1
        if is_text(tokens, first) and "".join(pieces):
            who = caller_of(tokens, index, functions, constants) if "%s" in "".join(pieces) else None
            texts.append(Text(path, tokens[first].line, "".join(pieces), who))
    return texts


def plain(text):
    """As the kit of the tests writes it: one character for what cannot be printed."""
    text = re.sub(r"\\x[0-9A-Fa-f]{2}|\\[nrt0]", "?", text)
    return re.sub(r"\\(.)", r"\1", text)


CONVERSION = re.compile(r"%(?:%|[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*)?)?(?:hh|h|ll|l|z)?([diouxXpsfgc])"
                        r"|(?:PRI([diux])\w+))")
NUMBERS = {"d": r"-?\d+", "i": r"-?\d+", "u": r"\d+", "x": "[0-9a-f]+", "X": "[0-9A-F]+", "o": "[0-7]+",
           "p": r"(?:0x[0-9a-f]+|\(nil\))", "f": r"-?[\d.]+", "g": r"-?[\d.e+-]+", "c": ".", "s": ".*"}


def pattern_of(text):
    """A format as a regular expression of the whole line."""
    out = ""
    at = 0
    format_ = plain(text.text)
    named = False
    for match in CONVERSION.finditer(format_):
        out += re.escape(format_[at:match.start()])
        at = match.end()
        kind = match[1] or match[2]
        if kind is None:
            out += "%"
        elif kind == "s" and not named and text.who:
            out += re.escape(text.who)
        else:
            out += NUMBERS[kind]
        named = named or kind == "s"
    return out + re.escape(format_[at:])


class Record:
    """What was seen in a run of the tests."""

    def __init__(self, folder):
        self.lines = collections.defaultdict(list)  # kind: [Seen]
        for name in sorted(os.listdir(folder)):
            with open(os.path.join(folder, name), errors="replace") as file:
                for line in file:
                    kind, test, text = line.rstrip("\n").split("\t", 2)
                    if kind == "stdout" and text.startswith("RTMPWriter: "):
                        self.lines[kind].append(Seen(kind, test, "RTMPWriter: "))
                        kind, text = "log", text[len("RTMPWriter: "):]
                    self.lines[kind].append(Seen(kind, test, text))
        # Each text once with its tests: many tests see the same line.
        self.tests = {}
        for kind, seen in self.lines.items():
            by_text = collections.defaultdict(set)
            for each in seen:
                by_text[each.text].add(each.test)
            for tests in by_text.values():
                SEEN_BY.update(tests)
            self.tests[kind] = by_text
        self.logged = "\n".join(self.tests.get("log", {}))

    def exactly(self, text, kinds):
        for kind in kinds:
            tests = self.tests.get(kind, {}).get(text)
            if tests:
                return kind, tests
        return None

    def matching(self, pattern, kinds):
        for kind in kinds:
            found = set()
            for match in re.finditer("^(?:" + pattern + ")$", "\n".join(self.tests.get(kind, {})), re.M):
                found |= self.tests[kind][match[0]]
            if found:
                return kind, found
        return None

    def tests_of(self, kind, holds):
        return {test for text, tests in self.tests.get(kind, {}).items() if holds(text) for test in tests}

    def sent(self, text):
        """What a peer has said: a text by itself, the beginning of a name, or within an HTTP request."""
        found = self.tests_of("sent", lambda sent: sent == text)
        if text.endswith(":"):
            found = self.tests_of("sent", lambda sent: sent.startswith(text))
        found |= self.tests_of("request", lambda request: text in request)
        return ("sent", found) if found else None

    def beginning(self, text):
        """Of a line on standard error, where perror adds the reason; of an AMF0 text that ends with a name; of a file's
        name."""
        found = self.tests_of("stderr", lambda line: line.startswith(text + ": "))
        if found:
            return "stderr", found
        found = self.tests_of("wire", lambda sent: sent.startswith(text + " "))
        if found:
            return "wire", found
        found = self.tests_of("file", lambda line: "/" + text + "-" in line)
        return ("file", found) if found else None

    def within_log(self, text):
        found = set()
        for match in re.finditer(word_of_a_log(text), self.logged, re.M):
            found |= self.tests["log"][match[0]]
        return ("log", found) if found else None


def word_of_a_log(text):
    """How a text stands within a line: sentences and names of procedures anywhere, other words as its last."""
    anywhere = " " in text or not text[0].islower()
    return (r"^.*(?<!\w)" if anywhere else "^.* ") + re.escape(text) + (r"(?!\w).*$" if anywhere else r"\?$")


def evidence(text, record):
    flat = plain(text.text)
    if CONVERSION.search(text.text):
        words = re.search("[A-Za-z]", CONVERSION.sub("", flat))  # without any, a line of the log proves nothing
        kinds = ("log", "host", "wire", "file", "stdout") if words else ("wire", "host", "file")
        return record.matching(pattern_of(text), kinds)
    if flat.startswith(("ERROR: ", "INFO: ")):
        return record.matching(re.escape(flat), ("log",))
    exact = ("wire", "host", "stdout") if len(flat) > 2 else ("host",)  # two letters may stand in any picture
    return record.exactly(flat, exact) or record.beginning(flat) or record.within_log(flat)


def read_list():
    """{(path, text): reason}; the lines are "path | text | reason", or "path | text @ procedure | reason" where others
    of the file log the same; a text * is all of the file's."""
    reasons = {}
    with open(os.path.join(ROOT, LIST)) as file:
        for number, line in enumerate(file, 1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            parts = [part.strip() for part in line.split(" | ")]
            if len(parts) != 3 or not all(parts):
                sys.exit(f"{LIST}:{number}: not \"path | text | reason\": {line}")
            if (parts[0], parts[1]) in reasons:
                sys.exit(f"{LIST}:{number}: stands twice: {line}")
            reasons[parts[0], parts[1]] = parts[2]
    return reasons


def key_of(text, reasons):
    for key in ((text.path, f"{text.text} @ {text.who}"), (text.path, text.text.strip()), (text.path, "*")):
        if key in reasons:
            return key
    return None


def check():
    texts = [text for path in rooms_files() for text in texts_of(path)]
    reasons = read_list()
    there = {key_of(text, reasons) for text in texts}
    gone = [key for key in reasons if key not in there]
    for path, text in gone:
        print(f"{LIST}: no such text in the sources: {path} | {text}")
    print(f"{len(texts)} texts, {len(reasons)} reasons")
    return 1 if gone or len(texts) < 500 else 0


def rows_of(record):
    """[(Text, kind, tests, reason)] and complaints."""
    reasons = read_list()
    rows = []
    complaints = []
    for path in rooms_files():
        for text in texts_of(path):
            key = key_of(text, reasons)
            reason = reasons.get(key, "")
            if reason.startswith("read: "):
                found = record.sent(plain(text.text))
                if not found:
                    complaints.append(f"{text.path}:{text.line}: no test sends: {text.text}")
                rows.append((text, "read", found[1] if found else set(), reason))
                continue
            # What is kept in a record, or is a table for readers, may look like what others write.
            found = None if reason.startswith("kept: ") or (key and key[1] == "*") else evidence(text, record)
            if found and key:
                complaints.append(f"{LIST}: is produced by {first(found[1])}: {text.path} | {text.text}")
            if not found and not key:
                complaints.append(f"{text.path}:{text.line}: no test produces: {text.text}" +
                                  (f"   [{text.who}]" if text.who else ""))
            rows.append((text, found[0] if found else "-", found[1] if found else set(), reason))
    return rows, complaints


SEEN_BY = collections.Counter()  # test: how many different texts it has seen


def first(tests):
    """The test that says most about the text: the one that sees the fewest others."""
    return min(tests, key=lambda test: (SEEN_BY[test], test))


def table(folder):
    rows, complaints = rows_of(Record(folder))
    for text, kind, tests, reason in rows:
        shown = first(tests) if tests else reason
        print(f"{text.path}:{text.line} | {text.text} | {kind} | {shown} | {len(tests)}")
    write_summary(rows)
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


WAYS = (("log", "lines of the log"), ("wire", "AMF0 texts on a connection"), ("host", "arguments of host functions"),
        ("file", "lines of the trace"), ("stdout", "standard output"), ("stderr", "standard error"))


def write_summary(rows):
    lines = ["# Fixed texts", "",
             "| texts of the library's sources | |", "|---|---|", f"| all | {len(rows)} |"]
    produced = [row for row in rows if row[1] not in ("-", "read")]
    lines.append(f"| seen in an output of a test | {len(produced)} |")
    for kind, what in WAYS:
        lines.append(f"| – {what} | {sum(1 for row in produced if row[1] == kind)} |")
    read = [row for row in rows if row[1] == "read"]
    lines.append(f"| looked for in what a peer sends, and sent by a test | {sum(1 for row in read if row[2])} |")
    rest = [row for row in rows if row[1] == "-" or (row[1] == "read" and not row[2])]
    lines.append(f"| neither, with a reason | {sum(1 for row in rest if row[3])} |")
    lines.append(f"| neither, without one | {sum(1 for row in rest if not row[3])} |")
    lines.append(f"| tests that the table names | {len({first(row[2]) for row in produced})} |")
    lines += ["", "Neither, and why:", ""]
    grouped = collections.OrderedDict()
    for text, _, _, reason in rest:
        grouped.setdefault((text.path, reason), []).append(text.text)
    for (path, reason), texts in grouped.items():
        shown = ", ".join(f"`{text}`" for text in texts) if len(texts) < 4 else f"{len(texts)} texts"
        lines.append(f"- `{path}`: {shown}: {reason or '**none**'}")
    os.makedirs(os.path.join(ROOT, os.path.dirname(OUT)), exist_ok=True)
    with open(os.path.join(ROOT, OUT), "w") as file:
        file.write("\n".join(lines) + "\n")
    print("\n".join(lines[2:2 + 13]))


if __name__ == "__main__":
    sys.exit(check() if sys.argv[1] == "check" else table(sys.argv[2]))
