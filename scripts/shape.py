"""Measures of the tree; scripts/shape.sh runs this.

The sources are laid out by clang-format, and that is what is relied on here: a function's braces stand alone in
the first column, namespaces and extern "C" do not indent, and nothing else opens with a brace alone.
"""
import collections
import importlib.machinery
import importlib.util
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OBJECTS = os.path.join(ROOT, "build/debug/CMakeFiles/rtmpcast_objects.dir")

Function = collections.namedtuple("Function", "name path lines")


def load_floors():
    """tests/house/check_floors: its reading of the table, of includes and of built objects."""
    path = os.path.join(ROOT, "tests/house/check_floors")
    loader = importlib.machinery.SourceFileLoader("check_floors", path)
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("check_floors", loader))
    sys.dont_write_bytecode = True
    loader.exec_module(module)
    return module


def read(path):
    with open(os.path.join(ROOT, path), errors="replace") as file:
        return file.read()


def files_under(folder, endings):
    for where, folders, names in os.walk(os.path.join(ROOT, folder)):
        folders.sort()
        for name in sorted(names):
            if name.endswith(endings):
                yield os.path.relpath(os.path.join(where, name), ROOT)


def without_comments(text):
    """Strings stay; comments become spaces, so that lines keep their numbers."""
    pattern = r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|//[^\n]*|/\*.*?\*/'
    return re.sub(pattern, lambda m: m[0] if m[0][0] in "\"'" else re.sub(r"[^\n]", " ", m[0]), text, flags=re.S)


def without_attributes(text):
    return re.sub(r"__attribute__\(\(.*?\)\)+", "", text, flags=re.S)


def functions_of(path):
    """Every function with a body. Its lines are those from its name to its last brace, blank ones left out."""
    lines = read(path).splitlines()
    bare = without_comments(read(path)).splitlines()
    start = None
    for number, line in enumerate(bare):
        if line.rstrip() == "{":
            start = number
        elif line.startswith("}") and start is not None:
            first = start
            while first > 0 and bare[first - 1].strip() and not re.search(r"[;}{]\s*$", bare[first - 1]):
                first -= 1
            name = re.findall(r"(\w+)\s*\(", without_attributes(" ".join(bare[first:start])))
            size = sum(1 for line in lines[first : number + 1] if line.strip())
            yield Function(name[0] if name else "?", path, size)
            start = None


def local_regions(text):
    yield from re.findall(r"^namespace \{\n(.*?)^\} // namespace", text, re.S | re.M)
    # static functions and variables at the file's own level
    yield from re.findall(r"^static [^\n]*;|^static [^\n]*\n\{.*?^\}", text, re.S | re.M)


def local_names_of(path):
    """{name: what it stands for} of all that only this file can see."""
    names = {}
    for region in map(without_comments, local_regions(read(path))):
        for match in re.finditer(r"^(?P<head>[^\s{}#][^;{}=]*?)\n\{\n(?P<body>.*?)^\}", region, re.S | re.M):
            name = re.findall(r"(\w+)\s*\(", without_attributes(match["head"]))
            if name:
                names[name[0]] = match["body"]
        for match in re.finditer(r"^(?:struct|enum|union)(?: class)? (\w+)[^;\n]*\{\n(.*?)^\}", region, re.S | re.M):
            names[match[1]] = match[2]
        for match in re.finditer(r"^(?:static )?const(?:expr)? [^;(]*?(\w+)(?:\[[^\]]*\])* ?(?:= ?|\{)([^;]*);", region, re.M):
            names[match[1]] = match[2]
    return {name: re.sub(r"\s+", " ", body).strip() for name, body in names.items()}


def stand_twice(paths):
    """(names with several meanings, things that stand several times), as {name: files}."""
    where = collections.defaultdict(dict)
    for path in paths:
        for name, body in local_names_of(path).items():
            where[name][path] = body
    meanings, copies = {}, {}
    for name, bodies in sorted(where.items()):
        if len(bodies) > 1:
            (meanings if len(set(bodies.values())) > 1 else copies)[name] = sorted(bodies)
    return meanings, copies


def circles_of(edges):
    """Groups of nodes that reach each other."""

    def reached(start):
        seen, todo = set(), [start]
        while todo:
            for target in edges.get(todo.pop(), ()):
                if target not in seen:
                    seen.add(target)
                    todo.append(target)
        return seen

    reach = {node: reached(node) for node in edges}
    return {frozenset(b for b in reach[a] if a in reach.get(b, ())) for a in reach if a in reach[a]}


def edges_of(floors):
    """(edges between files, whether the built objects' calls are among them)."""
    edges = collections.defaultdict(set)
    for source in floors.sources_of(ROOT, floors.read_floors()):
        for target in floors.includes_of(ROOT, source):
            if target != source:
                edges[source].add(target)
    built = os.path.isdir(OBJECTS) and any(floors.objects_of(OBJECTS))
    for source, target in floors.calls_of(OBJECTS, "nm") if built else ():
        edges[source].add(target)
    return edges, built


# A comment states threads or locks when it says who may call, what is held, or that neither matters.
STATED = re.compile(
    r"\bthreads?\b|\b(takes?|holds?|holding|under|needs?) [^.]*\b\w*lock\b|\bno locks?\b|\blocks? (is|are) held\b"
    r"|\block(ed|less)\b|\bat a time\b",
    re.I | re.S,
)


def declarations(marker):
    """[(name, whether its comment states threads or locks)] of the face's declarations behind `marker`."""
    found = []
    for path in files_under("include/rtmpcast", ".h"):
        comment = ""
        for match in re.finditer(r"/\*.*?\*/|^" + marker + r"\b[^;]*;", read(path), re.S | re.M):
            if match[0].startswith("/*"):
                comment = match[0]
                continue
            name = re.search(r"\(\*(\w+)\(", match[0]) or re.search(r"(\w+)\s*\(", match[0])
            found.append((name[1], bool(STATED.search(re.sub(r"\s*\n\s*\*?\s*", " ", comment)))))
    return found


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def share_of(found):
    stated = sum(1 for _, states in found if states)
    return f"{stated} of {len(found)} ({100 * stated // max(1, len(found))} %)"


def count(paths, pattern):
    return sum(len(re.findall(pattern, without_comments(read(path)))) for path in paths)


def lines_of(paths):
    return sum(1 for path in paths for line in read(path).splitlines() if line.strip())


def main():
    floors = load_floors()
    library = sorted(floors.sources_of(ROOT, floors.read_floors()))
    code = library + [path for path in files_under("include/rtmpcast", ".h") if path not in library]
    tests = list(files_under("tests", (".cpp", ".h", ".c")))
    scripts = list(files_under("tests", ".sh"))
    functions = [function for path in code for function in functions_of(path)]
    sizes = [function.lines for function in functions]
    longest = max(functions, key=lambda function: function.lines)
    lengths = {path: len(read(path).splitlines()) for path in code}
    edges, built = edges_of(floors)
    folders = collections.defaultdict(set)
    for source, targets in edges.items():
        for target in targets:
            if floors.room_of(source) != floors.room_of(target):
                folders[floors.room_of(source)].add(floors.room_of(target))
    meanings, copies = stand_twice([path for path in library if path.endswith(".cpp")])
    exported, hosts = declarations("RTMP_API"), declarations("RTMP_HOST")
    sleeps = r"\b(?:u|nano|clock_nano)?sleep(?:_for|_until)?\s*\("
    rows = [
        ("functions", len(functions)),
        ("lines of a function: median", percentile(sizes, 0.5)),
        ("lines of a function: 95 %", percentile(sizes, 0.95)),
        ("longest function", f"{longest.lines} (`{longest.name}`)"),
        ("files", len(code)),
        ("lines of a file: 95 %", percentile(lengths.values(), 0.95)),
        ("longest file", f"{max(lengths.values())} (`{max(lengths, key=lengths.get)}`)"),
        ("circles of files" + ("" if built else " (includes only: no build/debug)"), len(circles_of(edges))),
        ("circles of folders", len(circles_of(folders))),
        ("file-local names with two meanings", len(meanings)),
        ("file-local things that stand twice", len(copies)),
        ("exported functions whose threads or locks are stated", share_of(exported)),
        ("host functions whose threads or locks are stated", share_of(hosts)),
        ("lines of tests to lines of code", f"{lines_of(tests + scripts) / lines_of(code):.2f}"),
        ("gotos", count(code + tests, r"\bgoto\b")),
        ("sleeps in tests", count(tests, sleeps) + count(scripts, r"(?m)^\s*sleep\b|[;&|] *sleep\b")),
    ]
    print("| measure | |\n|---|---|")
    for name, value in rows:
        print(f"| {name} | {value} |")

    if sys.argv[1:] == ["--names"]:
        print("\nLongest functions:")
        for function in sorted(functions, key=lambda function: -function.lines)[:10]:
            print(f"  {function.lines:3} {function.name} ({function.path})")
        for title, names in (("Names with two meanings", meanings), ("Things that stand twice", copies)):
            print(f"{title}:")
            for name, paths in names.items():
                print(f"  {name}: {', '.join(paths)}")
        print("Threads and locks not stated:")
        print("  " + " ".join(name for name, states in exported + hosts if not states))


if __name__ == "__main__":
    main()
