#!/usr/bin/env python3
"""Makes docs/generated/errors.md from docs/errors.tsv, and compares the table with the log texts of the sources.

  error_reference.py --write   makes the document
  error_reference.py --check   fails when the table lacks a text, has one that no source logs any more, gives it
                               another level, or when the document is not what would be made
  error_reference.py --list    the texts of the sources: folder, levels, text

A row of the table: folders, levels, text, cause, what to do; separated by tabs. Rows that begin with # are
comments, with ## headings of the document, and with > paragraphs of it.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FOLDERS = ("api", "base", "client", "server", "protocol", "transport", "link", "version", "platform/link", "platform/log",
           "hub/core", "hub/mqtt", "hub/web", "python/lumora")
TABLE = ROOT / "docs" / "errors.tsv"
DOCUMENT = ROOT / "docs" / "generated" / "errors.md"

# The name of a call that logs, its level (or None: the first argument), and the place of its text.
CALLS = {
    "LUMORA_TRACE": (0, 0), "LUMORA_DETAIL": (1, 0), "LUMORA_STATE": (2, 0), "LUMORA_WARNING": (3, 0),
    "LUMORA_ERROR": (4, 0), "LUMORA_REQUIRE": (4, 1), "LUMORA_LOG_AS": (None, 2), "LUMORA_LOG_AT": (None, 3),
    "LogInfo": (None, 4), "LINK_LOG": (None, 1),
    "LINK_LOG_LIMITED": (None, 1), "HUB_LOG": (None, 1), "MQTT_LOG": (None, 1),
    "MQTT_LOG_LIMITED": (None, 1), "ReportToStderr": ("-", 0),
}
LEVELS = {"TRACE": 0, "DETAIL": 1, "STATE": 2, "WARNING": 3, "ERROR": 4}
# Lines of the log about itself, which are written without one of the calls above.
OWN_LINES = {"platform/log": {"more lines from here were left out": "2-4", "log lines were lost": 3}}

TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)+\'', re.S)
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')


def without_comments(text):
    text = re.sub(r"^[ \t]*#[ \t]*define(?:[^\n]*\\\n)*[^\n]*", "", text, flags=re.M)
    return TOKEN.sub(lambda m: "" if m.group().startswith("/") else m.group(), text)


def arguments(text, start):
    """The arguments of a call whose parenthesis opens before start."""
    depth, begin, at, found = 1, start, start, []
    while depth:
        token = TOKEN.match(text, at)
        if token:
            at = token.end()
            continue
        char = text[at]
        depth += (char in "([{") - (char in ")]}")
        if depth == 0 or (depth == 1 and char == ","):
            found.append(text[begin:at].strip())
            begin = at + 1
        at += 1
    return found


def joined(argument):
    """The text of adjacent literals, or None if there is none."""
    argument = argument.replace("PRIu64", '"llu"')
    return "".join(LITERAL.findall(argument)) if argument.startswith('"') else None


def level_of(argument):
    if argument.isdigit():
        return int(argument)
    numbers = [number for name, number in LEVELS.items() if name.lower() in argument.lower()]
    return numbers[0] if numbers else None


def logged_by_python(path):
    """The same for Python's one function. Its fields are shown as formats of C."""
    for text in re.findall(r'\blog_error\([^\n]*, f?"((?:[^"\\]|\\.)*)"\)', path.read_text()):
        yield 4, re.sub(r"{[^{}]*}", "%s", text)


def logged_by(path):
    """(level, text) of each call in a file."""
    if path.suffix == ".py":
        yield from logged_by_python(path)
        return
    text = without_comments(path.read_text())
    for call in re.finditer(r"\b(" + "|".join(CALLS) + r")\(", text):
        level, place = CALLS[call.group(1)]
        values = arguments(text, call.end())
        literal = joined(values[place]) if len(values) > place else None
        if literal is None:
            continue  # a declaration, or a call that hands on what another one said
        yield (level_of(values[0]) if level is None else level), literal
    for part, level in OWN_LINES.get(path.parent.relative_to(ROOT).as_posix(), {}).items():
        for line in text.splitlines():
            if part in line:
                yield level, joined(line[line.index('"'):])


def texts_of_sources():
    """{text: {folder: levels}}"""
    texts = {}
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in (".cpp", ".h", ".c", ".py"):
                for level, text in logged_by(path):
                    texts.setdefault(text, {}).setdefault(folder, set()).add(level)
    return texts


def levels_text(levels):
    return ",".join(sorted(map(str, levels)))


def rows_of_table():
    """(number, cells) of each row, and the lines that are no rows as (number, text)."""
    for number, line in enumerate(TABLE.read_text().splitlines(), 1):
        if line.strip() and not re.match(r"#(?!#)", line):
            yield number, line.split("\t")


def is_text(cells):
    return len(cells) > 1


def faults_of_table(texts):
    wanted = {(folder, text): levels_text(levels)
              for text, places in texts.items() for folder, levels in places.items()}
    seen = set()
    for number, cells in rows_of_table():
        if not is_text(cells):
            continue
        if len(cells) != 5 or not all(cell.strip() for cell in cells):
            yield f"{TABLE.name}:{number}: not five filled columns"
            continue
        folders, levels, text = cells[:3]
        for folder in folders.split(","):
            key = (folder, text)
            if key in seen:
                yield f'{TABLE.name}:{number}: "{text}" of {folder} is there twice'
            elif key not in wanted:
                yield f'{TABLE.name}:{number}: no source in {folder} logs "{text}"'
            seen.add(key)
        expected = set().union(*(wanted.get((folder, text), "").split(",") for folder in folders.split(","))) - {""}
        if expected and levels != levels_text(expected):
            yield f'{TABLE.name}:{number}: "{text}" has level {levels_text(expected)}, not {levels}'
    for folder, text in sorted(wanted.keys() - seen):
        yield f'{TABLE.name}: lacks "{text}" (level {wanted[folder, text]}) of {folder}'


def faults_of_codes():
    """The codes of the C++ header are those of the document."""
    header = re.search(r"enum class Errc {(.*?)}", (ROOT / "include" / "lumora.hpp").read_text(), re.S).group(1)
    wanted = re.findall(r"^ *([A-Z_]+)", header, re.M)
    described = re.findall(r"^\| `([A-Z_]+)` ", TABLE.read_text(), re.M)
    if wanted != described:
        yield f"{TABLE.name}: the codes of lumora::Errc are {', '.join(wanted)}, not {', '.join(described)}"


def shown(text):
    """A log text in a table of Markdown: without the line end, whole."""
    text = text.removesuffix("\\n").rstrip().replace('\\"', '"').replace("|", "\\|")
    return f"`{text}`"


def document():
    lines = []
    in_table = False
    for _, cells in rows_of_table():
        if is_text(cells):
            if not in_table:
                lines += ["", "| level | text | cause | what to do |", "|---|---|---|---|"]
            in_table = True
            _, levels, text, cause, cure = cells
            lines.append(f"| {levels.replace(',', ', ')} | {shown(text)} | {cause} | {cure} |")
        else:
            in_table = False
            line = cells[0].removeprefix("> ")
            continues_table = cells[0].startswith("|")
            lines += [line] if continues_table or not lines else ["", line]
    return "\n".join(lines) + "\n"


def check():
    faults = [*faults_of_table(texts_of_sources()), *faults_of_codes()]
    if not faults and (not DOCUMENT.exists() or DOCUMENT.read_text() != document()):
        faults.append("docs/generated/errors.md is not what docs/errors.tsv makes; scripts/docs --write makes it")
    print("\n".join(faults) if faults else "docs/errors.tsv has every text of the log, and no other")
    return 1 if faults else 0


def main():
    if sys.argv[1:] == ["--list"]:
        for text, places in texts_of_sources().items():
            for folder, levels in places.items():
                print(f"{folder}\t{levels_text(levels)}\t{text}")
    elif sys.argv[1:] == ["--write"]:
        DOCUMENT.write_text(document())
    elif sys.argv[1:] == ["--check"]:
        return check()
    else:
        print(__doc__)
        return 0 if sys.argv[1:] in (["--help"], ["-h"]) else 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
