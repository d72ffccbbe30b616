#!/usr/bin/env -S python3 -B
"""Makes HTML of the documents: html_pages.py FOLDER. Needs cmark-gfm.

The pages stand in FOLDER as the documents stand in the project. Links between documents lead to pages, links to other
files of the project to these files, from the folder build/docs/html at least.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

from check_links import ROOT, headings

DOCUMENTS = ("*.md", "docs/*.md", "docs/generated/*.md")
HEAD = """<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width">
<meta name="color-scheme" content="light dark"><title>{title}</title>
<style>body{{max-width:52em;margin:2em auto;padding:0 1em;font-family:sans-serif;line-height:1.4}}
pre{{overflow-x:auto;padding:.6em;border:1px solid #8888}}table{{border-collapse:collapse}}
td,th{{border:1px solid #8888;padding:.2em .5em;vertical-align:top}}img{{max-width:100%}}</style></head><body>
<p><a href="{root}/README.html">Lumora</a> · <a href="{root}/reference/index.html">all functions</a></p>
"""


def page(document, folder, documents):
    command = ["cmark-gfm", "--unsafe", "-e", "table", str(document)]
    body = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    anchors = iter(headings(document))
    body = re.sub(r"<h([1-6])>", lambda found: f'<h{found[1]} id="{next(anchors)}">', body)
    target = (folder / document.relative_to(ROOT)).with_suffix(".html")
    body = re.sub(r'(href|src)="([^"#:]+)(#[^"]*)?"(?!:)',
                  lambda found: f'{found[1]}="{moved(document, target, documents, found[2])}{found[3] or ""}"', body)
    target.parent.mkdir(parents=True, exist_ok=True)
    root = os.path.relpath(folder, target.parent)
    title = document.read_text(encoding="utf-8").splitlines()[0].lstrip("# ")
    target.write_text(HEAD.format(title=title, root=root) + body + "</body></html>\n", encoding="utf-8")


def moved(document, page_path, documents, link):
    """The target of a document's link, from its page."""
    file = (document.parent / link).resolve()
    if file in documents:
        return link[:-len("md")] + "html"
    return link if file.suffix == ".svg" else os.path.relpath(file, page_path.parent)


def main():
    if len(sys.argv) != 2 or sys.argv[1] in ("--help", "-h"):
        print(__doc__)
        return 0 if len(sys.argv) == 2 else 2
    folder = pathlib.Path(sys.argv[1]).resolve()
    documents = {path for pattern in DOCUMENTS for path in ROOT.glob(pattern)}
    for document in sorted(documents):
        page(document, folder, documents)
    for picture in sorted((ROOT / "docs").rglob("*.svg")):
        target = folder / picture.relative_to(ROOT)
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(picture, target)
    return 0


if __name__ == "__main__":
    sys.exit(main())
