"""The table of coverage; scripts/coverage.sh runs this.

    coverage.py COUNTS EXPLAINED TABLE

COUNTS is gcovr's JSON, EXPLAINED the list of lines that no test runs and why, TABLE the file that the table goes to.
Fails when a folder is below the aim, when a line is neither run nor explained, and when an explanation is of a line
that is run or gone. A line is known by its function and its text, so that the list outlives other changes.
"""
import bisect
import collections
import json
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
AIM = 95  # per cent of the lines of each folder

File = collections.namedtuple("File", "path lines run branches taken missed")


def text_of(path):
    with open(os.path.join(ROOT, path)) as file:
        return [line.strip() for line in file]


def name_of(signature):
    return re.sub(r"\(.*", "", signature.replace("(anonymous namespace)::", ""))


def read_file(entry):
    """One file's counts. missed: (function, text) of each line that nothing runs -> its numbers."""
    lines = [line for line in entry["lines"] if not line.get("gcovr/noncode")]
    branches = [branch for line in lines for branch in line["branches"]]
    text = text_of(entry["file"])
    starts = sorted((one["lineno"], name_of(one["name"])) for one in entry["functions"])
    missed = collections.defaultdict(list)
    for line in lines:
        if line["count"] == 0:
            at = bisect.bisect_right(starts, (line["line_number"], "~")) - 1
            name = starts[at][1] if at >= 0 else ""
            missed[name, text[line["line_number"] - 1]].append(line["line_number"])
    return File(entry["file"], len(lines), sum(line["count"] > 0 for line in lines), len(branches),
                sum(branch["count"] > 0 for branch in branches), missed)


def read_explained(path):
    """{(file, function, text): why}, and what is wrong with the list itself."""
    explained, wrong = {}, []
    with open(path) as file:
        for number, line in enumerate(file, 1):
            if line.strip() and not line.startswith("#"):
                fields = line.strip().split(" | ")
                key = (*fields[:2], " | ".join(fields[2:-1]))  # the text itself may hold an "or"
                if len(fields) < 4 or not all(fields) or key in explained:
                    wrong.append(f"{path}:{number}: not 'file | function | text | why', or twice: {line.strip()}")
                else:
                    explained[key] = fields[-1]
    return explained, wrong


def share(part, whole):
    return f"{100 * part / whole:.1f}" if whole else "–"


def row(name, files):
    lines, run = sum(file.lines for file in files), sum(file.run for file in files)
    branches, taken = sum(file.branches for file in files), sum(file.taken for file in files)
    return f"| {name} | {lines} | {lines - run} | {share(run, lines)} % | {branches} | {share(taken, branches)} % |"


HEAD = ["| {} | lines | not run | run | branches | taken |", "|---|---|---|---|---|---|"]


def tables(files):
    folders = collections.defaultdict(list)
    for file in files:
        folders[os.path.dirname(file.path)].append(file)
    by_folder = [HEAD[0].format("folder"), HEAD[1], *(row(f"`{name}/`", folders[name]) for name in sorted(folders)),
                 row("all", files)]
    by_file = [HEAD[0].format("file"), HEAD[1], *(row(f"`{file.path}`", [file]) for file in files)]
    low = [name for name in sorted(folders)
           if sum(file.run for file in folders[name]) * 100 < AIM * sum(file.lines for file in folders[name])]
    return by_folder, by_file, low


def explanations(files, explained):
    """{why: [(file, function) of each line]} of lines that do not run, and what is wrong with them or with the list."""
    reasons, wrong, seen = collections.defaultdict(list), [], set()
    for file in files:
        for (function, text), numbers in file.missed.items():
            key = (file.path, function, text)
            seen.add(key)
            if key in explained:
                reasons[explained[key]] += [(file.path, function)] * len(numbers)
            else:
                wrong.append(f"{file.path}:{numbers[0]}: not run, not explained: {' | '.join(key)}")
    wrong += [f"explained, but run or gone: {' | '.join(key)}" for key in explained if key not in seen]
    return reasons, wrong


def page(by_folder, reasons):
    rows = []
    for why, places in reasons.items():
        names = ", ".join(f"`{function}`" for function in sorted({function for _, function in places}))
        paths = ", ".join(f"`{path}`" for path in sorted({path for path, _ in places}))
        rows.append(f"| {len(places)} | {paths}: {names} | {why} |")
    return ["Branches that only an exception would take are not counted.", "", *by_folder, "",
            f"The {sum(map(len, reasons.values()))} lines that no test runs stand in `tests/uncovered.txt`, each with its reason:", "",
            "| lines | where | why |", "|---|---|---|", *rows, ""]


def main():
    counts, list_of_lines, table = sys.argv[1:]
    with open(counts) as file:
        files = sorted(map(read_file, json.load(file)["files"]), key=lambda file: file.path)
    files = [file for file in files if file.lines]
    if len(files) < 100:
        sys.exit(f"{len(files)} files: this is not the library")
    explained, wrong = read_explained(list_of_lines)
    by_folder, by_file, low = tables(files)
    reasons, unexplained = explanations(files, explained)
    wrong += unexplained + [f"{name}/: less than {AIM} % of its lines run" for name in low]
    print("\n".join(by_file), "\n".join(by_folder), *wrong, sep="\n")
    os.makedirs(os.path.dirname(table), exist_ok=True)
    with open(table, "w") as file:
        file.write("\n".join(page(by_folder, reasons)))
    print(f"{sum(map(len, reasons.values()))} lines explained, {len(wrong)} wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
