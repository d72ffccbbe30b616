#!/usr/bin/env python3
"""Checks that the links of the documents lead somewhere: to a file of the project, to a heading in it.

  check_links.py              all documents
  check_links.py FILE...      only these

Links to other hosts are left alone.
"""
import pathlib
import re
import sys
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
DOCUMENTS = ("*.md", "docs/*.md", "docs/generated/*.md", "packaging/*.md", "python/*.md", "tests/*/*.md")
LINK = re.compile(r"\]\(([^()\s]+)\)|<(?:a href|img[^>]* src)=\"([^\"]+)\"")


def prose(text):
    """The text without its code, whose lines may look like links or headings."""
    text = re.sub(r"^(```|~~~).*?^\1[^\n]*$", "", text, flags=re.S | re.M)
    text = re.sub(r"<!--.*?-->", "", text, flags=re.S)
    return text


def headings(path):
    """The anchors of a document's headings, as the usual viewers of Markdown make them."""
    seen = {}
    for heading in re.findall(r"^#{1,6} +(.*?) *#*$", prose(path.read_text()), re.M):
        plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).replace("`", "")
        anchor = re.sub(r"[^\w\- ]", "", plain.lower()).replace(" ", "-")
        number = seen.get(anchor, 0)
        seen[anchor] = number + 1
        yield f"{anchor}-{number}" if number else anchor


def faults(document):
    text = re.sub(r"`[^`\n]*`", "", prose(document.read_text()))
    for link in LINK.finditer(text):
        target = link.group(1) or link.group(2)
        if re.match(r"[a-z]+:", target):
            continue
        file, _, anchor = urllib.parse.unquote(target).partition("#")
        path = (document.parent / file).resolve() if file else document
        if not path.exists():
            yield f"{target}: there is no such file"
        elif ROOT not in path.parents and path != ROOT:
            yield f"{target}: leads out of the project"
        elif anchor and (path.suffix != ".md" or anchor not in headings(path)):
            yield f"{target}: there is no such heading"


def main():
    if sys.argv[1:] in (["--help"], ["-h"]):
        print(__doc__)
        return 0
    documents = [pathlib.Path(name).resolve() for name in sys.argv[1:]] or [
        path for pattern in DOCUMENTS for path in sorted(ROOT.glob(pattern))]
    broken = 0
    for document in documents:
        for fault in faults(document):
            print(f"{document.relative_to(ROOT)}: {fault}")
            broken += 1
    if not broken:
        print(f"{len(documents)} documents, all links lead somewhere")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
