"""Reads the results of mutants, and counts them by file."""

import collections
import json
import pathlib
import re

NOTICED = ("failed", "hung")


def read_lines(paths):
    """Reads results of earlier runs. Returns {identity: result}. If a mutant has several results, the last one counts."""
    found = {}
    for path in paths:
        for line in pathlib.Path(path).read_text().splitlines():
            result = json.loads(line)
            found[result["mutant"]] = result
    return found


def read_explained(path):
    """Reads tests/mutants/equivalent.txt, the list of mutants whose change has no effect. Returns {(file, line before, removed
    lines, added lines)}. The first lines of the list explain its form."""
    explained = set()
    for paragraph in path.read_text().split("\n\n"):
        lines = [line for line in paragraph.splitlines() if line and not line.startswith("#")]
        if not lines:
            continue
        old = tuple(line[1:].strip() for line in lines if line.startswith("-"))
        new = tuple(line[1:].strip() for line in lines if line.startswith("+"))
        before = [line[1:].strip() for line in lines if line.startswith(" ")]
        reason = [line for line in lines[1:] if not line.startswith((" ", "-", "+"))]
        if len(before) != 1 or not old or not new or not reason or not lines[0].endswith((".cpp", ".h")):
            raise ValueError(f"{path}: needs a file, the line before the change, lines with - and +, and a reason: {paragraph}")
        explained.add(explanation_of(lines[0], before[0], old, new))
    return explained


def without_comment(line):
    """Returns the line without a comment at its end. So an explanation stays valid when the comment changes."""
    for match in re.finditer(r"\s*//", line):
        if line[:match.start()].count('"') % 2 == 0:
            return line[:match.start()]
    return line


def explanation_of(file, before, old, new):
    return file, without_comment(before), tuple(map(without_comment, old)), tuple(map(without_comment, new))


def is_explained(result, explained):
    return explanation_of(result["file"], result["before"], result["old"], result["new"]) in explained


def counted(results, explained):
    """Returns {file: counts}. A mutant that a test has noticed counts as noticed, even if it is explained as equivalent."""
    counts = collections.defaultdict(lambda: {"mutants": 0, "noticed": 0, "survived": 0, "equivalent": 0})
    for result in results:
        verdict = result["verdict"]
        if verdict == "not compiled":
            continue
        count = counts[result["file"]]
        count["mutants"] += 1
        if verdict in NOTICED:
            count["noticed"] += 1
        elif verdict == "same code" or is_explained(result, explained):
            count["equivalent"] += 1
        else:
            count["survived"] += 1
    return dict(sorted(counts.items()))


def total_of(counts):
    return {key: sum(count[key] for count in counts.values()) for key in ("mutants", "noticed", "survived", "equivalent")}


def share(count):
    judged = count["noticed"] + count["survived"]
    return 100 * count["noticed"] / judged if judged else 100.0


def table(counts):
    lines = [f"{'file':40} mutants  equivalent  noticed  survived   share"]
    for name, count in [*counts.items(), ("all", total_of(counts))]:
        lines.append(f"{name:40} {count['mutants']:7}  {count['equivalent']:10}  {count['noticed']:7}  {count['survived']:8}  {share(count):5.1f} %")
    return "\n".join(lines)


def describe(result):
    changed = f"\n      {result['before']}" + "".join(f"\n    - {line}" for line in result["old"]) + "".join(f"\n    + {line}" for line in result["new"])
    return f"{result['file']}:{result['line']}: {result['change']}{changed}"
