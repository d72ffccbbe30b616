#!/usr/bin/env python3
"""Draws the folders of the sources, and which of them include headers of which: docs/generated/rooms.svg.

  rooms.py --write   draws the picture (needs dot, of Debian's graphviz)
  rooms.py --check   fails if the picture has another folder or another arrow than the sources
  rooms.py --list    the arrows, one a line

An arrow leads from a folder to one whose headers it includes. The picture leaves out an arrow if a longer way of
other arrows leads to the same folder.
"""
import html
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PICTURE = ROOT / "docs" / "generated" / "rooms.svg"
# Each built file and its folders, in the order of the picture.
GROUPS = {
    "liblumora_cpp.so": ["api", "client", "server", "transport", "link", "version", "protocol", "library"],
    "liblumora.so": ["platform/link", "platform/link/capi", "platform/link/io", "platform/link/channel",
                     "platform/link/core", "platform/link/wire"],
    "liblink_log.so": ["platform/log"],
    "libsecurec.so": ["platform/securec"],
    "lumora": ["tools/lumora", "tools/lumora/commands", "tools/lumora/recording", "tools/lumora/session",
               "tools/lumora/manual", "tools/lumora/os", "tools/lumora/terminal"],
    "lumora-platform-check": ["tools/platform_check"],
    "lumora-hub": ["hub", "hub/core", "hub/mqtt", "hub/web"],
    "lumora-hub-worker": ["hub/worker"],
    "": ["base", "include", "nodes", "platform/include"],
}
LABELS = {"tools/lumora": "main", "hub": "main", "nodes": "nodes: looking round", "platform/link": "log.h", "base": "base: shared",
          "include": "include: for applications",
          "platform/include": "platform/include: C headers of the three platform libraries"}
ROOMS = [room for rooms in GROUPS.values() for room in rooms]
FOLDERS = sorted({room.split("/")[0] for room in ROOMS})
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*["<]([^">]+)[">]', re.M)
STYLE = """<style>
text{font-family:system-ui,'DejaVu Sans',Verdana,sans-serif;fill:#1f2328}
.node path,.node polygon{fill:#ddf4ff;stroke:#0969da}
.cluster polygon,.cluster path{fill:none;stroke:#8c959f}
.edge path{stroke:#57606a}.edge polygon{fill:#57606a;stroke:#57606a}
@media(prefers-color-scheme:dark){text{fill:#e6edf3}
.node path,.node polygon{fill:#132f52;stroke:#58a6ff}
.cluster polygon,.cluster path{stroke:#6e7681}
.edge path{stroke:#9198a1}.edge polygon{fill:#9198a1;stroke:#9198a1}}
</style>
"""


def sources():
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in (".c", ".h", ".cpp", ".hpp"):
                yield path.relative_to(ROOT).as_posix()


def room_of(name):
    """The longest room that the file lies in. A file in none of them is a fault, so that new folders are drawn."""
    found = max((room for room in ROOMS if name.startswith(room + "/")), key=len, default=None)
    if found is None:
        sys.exit(f"{name} lies in no folder that scripts/lib/rooms.py draws: add the folder to GROUPS")
    return found


def included(name, names, bare):
    """The file of the project that an #include means, or None for one of the system."""
    return name if name in names else bare.get(name)


def arrows():
    names = set(sources())
    bare = {name.rpartition("/")[2]: name for name in names if room_of(name) in ("include", "platform/include")}
    found = set()
    for name in names:
        for target in INCLUDE.findall((ROOT / name).read_text(encoding="utf-8")):
            path = included(target, names, bare)
            if path and room_of(path) != room_of(name):
                found.add((room_of(name), room_of(path)))
    return found


def reachable(start, edges):
    seen, left = set(), [start]
    while left:
        room = left.pop()
        new = {to for origin, to in edges if origin == room} - seen
        seen |= new
        left += new
    return seen


def without_detours(edges):
    """The arrows that no longer way replaces."""
    return {(origin, to) for origin, to in edges
            if to not in reachable(origin, edges - {(origin, to)})}


def dot_text(edges):
    lines = ["digraph rooms {", "graph [bgcolor=transparent fontsize=13 nodesep=0.25 ranksep=0.35]",
             "node [shape=box style=rounded fontsize=13 height=0.35 margin=\"0.12,0.05\"]", "edge [arrowsize=0.7]"]
    for number, (group, rooms) in enumerate(GROUPS.items()):
        name = f"cluster_{number}" if group else ""
        lines.append(f'subgraph {name} {{ label="{group}"')
        lines += [f'"{room}" [label="{label_of(room)}"]' for room in rooms]
        lines.append("}")
    lines += [f'"{origin}" -> "{to}"' for origin, to in sorted(edges)]
    return "\n".join([*lines, "}"]) + "\n"


def label_of(room):
    return LABELS.get(room, room.removeprefix("platform/link/").removeprefix("tools/lumora/").removeprefix("hub/"))


def draw(edges):
    svg = subprocess.run(["dot", "-Tsvg"], input=dot_text(edges), capture_output=True, text=True, check=True).stdout
    svg = re.sub(r"<!--.*?-->\n?", "", svg[svg.index("<svg"):], flags=re.S)
    return re.sub(r"(<svg.*?>\n)", lambda head: head.group() + STYLE, svg, count=1, flags=re.S)


def drawn():
    """The folders and arrows of the picture, which stand in its titles."""
    titles = re.findall(r'class="(?:node|edge)">\s*<title>([^<]*)</title>', PICTURE.read_text(encoding="utf-8"))
    return {html.unescape(title) for title in titles}


def check(edges):
    wanted = {*ROOMS, *(f"{origin}->{to}" for origin, to in edges)}
    found = drawn() if PICTURE.exists() else set()
    for title in sorted(wanted - found):
        print(f"{PICTURE.name} lacks {title}; scripts/docs --write draws it")
    for title in sorted(found - wanted):
        print(f"{PICTURE.name} has {title}, the sources do not; scripts/docs --write draws it anew")
    return 0 if wanted == found else 1


def main():
    edges = without_detours(arrows())
    if sys.argv[1:] == ["--list"]:
        print("\n".join(f"{origin} -> {to}" for origin, to in sorted(arrows())))
    elif sys.argv[1:] == ["--write"]:
        PICTURE.write_text(draw(edges), encoding="utf-8")
    elif sys.argv[1:] == ["--check"]:
        return check(edges)
    else:
        print(__doc__)
        return 0 if sys.argv[1:] in (["--help"], ["-h"]) else 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
