"""Lists the mutants of a source file. A mutant changes one place of the file. The places come from clang's syntax tree."""

import collections
import hashlib
import json
import pathlib
import shlex
import sys

try:
    from clang import cindex
    from clang.cindex import CursorKind
except ModuleNotFoundError:
    sys.exit("mutants: the Python module of libclang is missing; scripts/install-dependencies mutants installs it, for /usr/bin/python3")

OTHER_OPERATOR = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=", "-=": "+=",
    "|=": "&=", "&=": "|=",
}
STATEMENTS = {
    CursorKind.CALL_EXPR, CursorKind.BINARY_OPERATOR, CursorKind.UNARY_OPERATOR,
    CursorKind.COMPOUND_ASSIGNMENT_OPERATOR, CursorKind.UNEXPOSED_EXPR, CursorKind.CXX_DELETE_EXPR,
}
JUMPS = {CursorKind.BREAK_STMT, CursorKind.CONTINUE_STMT}
LOCKS = ("lock_guard", "unique_lock", "scoped_lock")

# `start` and `end` are byte offsets in the file.
Mutant = collections.namedtuple("Mutant", "file line start end text change")


def text_of(cursor, source):
    return source[cursor.extent.start.offset:cursor.extent.end.offset].decode(errors="replace")


def other_operator(cursor, source):
    """Yields another operator in place of a binary one. Yields nothing for an operator inside a macro or without an entry in
    OTHER_OPERATOR."""
    children = list(cursor.get_children())
    if len(children) != 2:
        return
    start, end = children[0].extent.end.offset, children[1].extent.start.offset
    operator = source[start:end].strip().decode(errors="replace")
    if operator in OTHER_OPERATOR:
        start += source[start:end].index(operator.encode())
        yield start, start + len(operator), OTHER_OPERATOR[operator], f"{operator} becomes {OTHER_OPERATOR[operator]}"


def changed_literal(cursor, source):
    start, end, text = cursor.extent.start.offset, cursor.extent.end.offset, text_of(cursor, source)
    if cursor.kind == CursorKind.INTEGER_LITERAL and text.isdigit():
        yield start, end, str(int(text) + 1), f"{text} becomes {int(text) + 1}"
    elif cursor.kind == CursorKind.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
        other = "false" if text == "true" else "true"
        yield start, end, other, f"{text} becomes {other}"


def inverted_condition(cursor, source):
    text = text_of(cursor, source)
    if not (text.startswith(("if", "while")) or cursor.kind == CursorKind.CONDITIONAL_OPERATOR):
        return  # the statement is inside a macro
    for child in cursor.get_children():
        if child.kind.is_expression():
            condition = text_of(child, source)
            yield child.extent.start.offset, child.extent.end.offset, f"!({condition})", "the condition is inverted"
            return


def dropped_statement(statement, source):
    start, end, text = statement.extent.start.offset, statement.extent.end.offset, text_of(statement, source)
    is_whole = source[end:end + 1] == b";"
    if (statement.kind in STATEMENTS or statement.kind in JUMPS or text == "return") and is_whole:
        yield start, end, "(void)0", "the statement is dropped"
    elif statement.kind == CursorKind.DECL_STMT and any(lock in text for lock in LOCKS):
        yield start, end, ";", "the lock is dropped"


def swapped_statements(first, second, source):
    if first.kind not in STATEMENTS or second.kind not in STATEMENTS:
        return
    between = source[first.extent.end.offset:second.extent.start.offset].decode(errors="replace")
    if between.strip() == ";":
        yield (first.extent.start.offset, second.extent.end.offset,
               text_of(second, source) + between + text_of(first, source), "two statements change places")


def changes_of(cursor, source):
    """Yields (start, end, new text, description) for each change at this node of the syntax tree."""
    kind = cursor.kind
    children = list(cursor.get_children())
    if kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR):
        yield from other_operator(cursor, source)
    elif kind in (CursorKind.INTEGER_LITERAL, CursorKind.CXX_BOOL_LITERAL_EXPR):
        yield from changed_literal(cursor, source)
    elif kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR):
        yield from inverted_condition(cursor, source)
    if kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.FOR_STMT, CursorKind.CXX_FOR_RANGE_STMT):
        for child in children[1:]:  # a body without braces; dropped_statement() skips the step of a `for`
            yield from dropped_statement(child, source)
    elif kind == CursorKind.COMPOUND_STMT:
        for statement in children:
            yield from dropped_statement(statement, source)
        for first, second in zip(children, children[1:]):
            yield from swapped_statements(first, second, source)


def walk(cursor, path, source, found):
    for child in cursor.get_children():
        if child.kind == CursorKind.STATIC_ASSERT:
            continue
        is_here = child.location.file and child.location.file.name == str(path)
        if is_here:
            for start, end, text, change in changes_of(child, source):
                if start < end:
                    found.setdefault((start, end, text), change)
        if is_here or child.location.file is None or child.kind in (CursorKind.NAMESPACE, CursorKind.UNEXPOSED_DECL):
            walk(child, path, source, found)


def mutants_of_file(path, root, arguments):
    source = path.read_bytes()
    unit = cindex.Index.create().parse(str(path), args=arguments)
    errors = [each for each in unit.diagnostics if each.severity >= cindex.Diagnostic.Error]
    if errors:
        sys.exit(f"mutants: clang cannot read {path}: {errors[0].spelling}")
    found = {}
    walk(unit.cursor, path, source, found)
    for (start, end, text), change in sorted(found.items()):
        yield Mutant(str(path.relative_to(root)), source[:start].count(b"\n") + 1, start, end, text, change)


def mutants_of(folders, root, build, pattern="*"):
    """Yields the mutants of each file that is in one of these folders, has a name like `pattern`, and is compiled in the tree."""
    for command in sorted(json.loads((build / "compile_commands.json").read_text()), key=lambda each: each["file"]):
        path = pathlib.Path(command["file"])
        is_wanted = path.is_relative_to(root) and str(path.parent.relative_to(root)) in folders and path.match(pattern)
        if is_wanted and "faulty-ats" not in command["command"]:
            words = shlex.split(command["command"])
            yield from mutants_of_file(path, root, [word for word in words if word.startswith(("-I", "-D", "-std=", "-isystem"))])


def mutated(source, mutant):
    return source[:mutant.start] + mutant.text.encode() + source[mutant.end:]


def lines_of(source, mutant):
    """Returns the line before a mutant, the lines that it removes, and the lines that it adds, all without indentation."""
    first = source.rfind(b"\n", 0, mutant.start) + 1
    last = source.find(b"\n", mutant.end)
    new = source[first:mutant.start] + mutant.text.encode() + source[mutant.end:last]
    before = source[source.rfind(b"\n", 0, max(first - 1, 0)) + 1:first].decode().strip()
    return (before, *([line.strip() for line in part.decode().splitlines()] for part in (source[first:last], new)))


def identity(source, mutant):
    """Returns the name of a mutant in results. If the text of its file changes, all mutants of the file get other names."""
    return f"{mutant.file}@{hashlib.sha256(source).hexdigest()[:12]}:{mutant.start}-{mutant.end}:{mutant.text}"
