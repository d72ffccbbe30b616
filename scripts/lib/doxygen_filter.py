#!/usr/bin/env -S python3 -B
"""What Doxygen reads in place of a file: doxygen_filter.py FILE.

Our headers and documents are written for those who read them as they are. This marks the C header's comments as
documentation, and gives headings and links of the documents the names by which Doxygen's pages refer to each other.
"""
import html
import pathlib
import re
import sys

from check_links import ROOT, headings

# The second form of a function, which ends with a std::error_code and has no comment of its own.
OVERLOAD = r"(^(?!\s*///).*\n)(    )(?=(?:explicit )?[\w:<>]+ ?(?:[\w]+)?\((?:[^()]*,\s+)?std::error_code& error\))"
FENCE = re.compile(r"^(```|~~~)")


def c_header(text):
    """Comments before what they describe begin with a second star, those behind it with a '<' as well."""
    head, rest = text.split("*/", 1)
    head = re.sub(r"^ \* ([A-Z][A-Za-z ]+)$", r" * ### \1", head, flags=re.M)  # its headings stand alone
    head = re.sub(r"(?:^ \*   \|.*\|\n)+", table, head, flags=re.M)
    head = head.replace("/*\n * lumora.h - ", "/** @file\n * ")
    head = re.sub(r"^ \*   ", " * ", head, flags=re.M)
    section = re.compile(r"^/\* ---- (.*) ---- \*/$", re.M)
    rest = section.sub(r"/** @}\n * @name \1\n * @{ */", rest).replace("/** @}\n", "/**\n", 1)
    rest = rest.replace("/* Limits. */\n", "")
    end = rest.rindex("#ifdef __cplusplus")
    rest = rest[:end] + "/** @} */\n" + rest[end:]
    rest = re.sub(r"^/\*(?!\*)(\s)", r"/**\1", rest, flags=re.M)
    rest = re.sub(r"(\S +)/\* (.*) \*/$", r"\1/**< \2 */", rest, flags=re.M)
    return escaped_stars(head) + "*/" + escaped_stars(rest)


def table(found):
    """Rows of our comments go on in the next one, which then has no first cell, or one behind a comma."""
    rows = []
    for line in found.group().splitlines():
        cells = [cell.strip() for cell in line[line.index("|") + 1:line.rindex("|")].split("|")]
        continues = rows and (rows[-1][0].endswith(",") or not cells[0])
        rows[-1:] = [[" ".join(pair).strip() for pair in zip(rows[-1], cells)]] if continues else [*rows[-1:], cells]
    rows.insert(1, ["---"] * len(rows[0]))
    return "".join(" * | " + " | ".join(row) + " |\n" for row in rows) + " *\n"


def escaped_stars(text):
    """In comments, *name is a value and no emphasis."""
    return re.sub(r"/\*\*.*?\*/", lambda comment: re.sub(r"([ (])\*(?=[a-z])", r"\1\\*", comment.group()), text,
                  flags=re.S)


def cpp_header(text):
    text = re.sub(r"^/// lumora\.hpp - ", "/// @file\n/// ", text)
    text = re.sub(r"^template <>\nstruct std::[^{]*{};\n", "", text, flags=re.M)  # which confuses Doxygen
    text = re.sub(r"^(\s*///.*?)<(\w+)>", r"\1&lt;\2&gt;", text, flags=re.M)
    return re.sub(OVERLOAD, r"\1\2/// The same; sets or clears the error instead of throwing.\n\2", text, flags=re.M)


def label(path, anchor):
    name = re.sub(r"\W", "-", path.relative_to(ROOT).with_suffix("").as_posix())
    return f"{name}-{anchor}" if anchor else name


def document(path):
    lines, inside = [], False
    anchors = iter(headings(path))
    first = True
    for line in path.read_text().splitlines():
        inside ^= bool(FENCE.match(line))
        if re.match(r"#{1,6} ", line) and not inside:
            anchor = next(anchors)
            line += " {#" + label(path, "" if first else anchor) + "}"
            first = False
        elif not inside and not line.startswith("    "):
            line = re.sub(r"`([^`]+)`", quoted_code, line)
            line = re.sub(r"`[^`]*`|<code>.*?</code>|(?<=[A-Z])@(?=[A-Z])", escaped_at, line)
            line = re.sub(r"(!?)\[((?:[^][]|\[[^]]*\])*)\]\(([^()\s]+)\)",
                          lambda link: moved_link(path, *link.groups()), line)
        lines.append(line)
    return "\n".join(lines) + "\n"


def quoted_code(code):
    """What Doxygen would read in code between backticks, it is told not to."""
    if not re.search(r"""[%\\"']""", code.group(1)):
        return code.group()
    escaped = html.escape(code.group(1)).replace("&#x27;", "'")
    return "<code>" + re.sub(r"([%\\])", r"\\\1", escaped) + "</code>"


def escaped_at(found):
    """TYPE@ADDRESS is a text and no command. In code Doxygen reads none."""
    return "\\@" if found.group() == "@" else found.group()


def moved_link(path, image, text, target):
    if image or re.match(r"[a-z]+:", target):
        return f"{image}[{text}]({target.rsplit('/', 1)[-1] if image else target})"
    file, _, anchor = target.partition("#")
    to = (path.parent / file).resolve() if file else path
    if to.suffix != ".md" or to.parent not in (ROOT, ROOT / "docs"):  # others are not among the pages
        return f"`{to.relative_to(ROOT)}`" if "/" in target and text.strip("`") in target else text
    quoted = text.replace("`", "").replace('"', "'")
    return f'@ref {label(to, "" if anchor == anchor_of_title(to) else anchor)} "{quoted}"'


def anchor_of_title(path):
    return next(iter(headings(path)))


def main():
    path = pathlib.Path(sys.argv[1]).resolve()
    filters = {".h": c_header, ".hpp": cpp_header}
    print(document(path) if path.suffix == ".md" else filters[path.suffix](path.read_text()), end="")


if __name__ == "__main__":
    main()
