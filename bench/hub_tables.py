"""The JSON lines of bench/hub as tables of Markdown."""
import json
import pathlib
import re
import statistics

KINDS = {"websocket": "WebSocket", "events": "events", "mqtt": "MQTT"}


def read(path):
    return [json.loads(line) for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines()]


def fill(document, lines):
    """Replaces what is between the markers of each table. Parts that were not measured stay as they are."""
    text = document.read_text(encoding="utf-8")
    for name, content in tables(lines).items():
        pattern = re.compile(rf"(<!-- figures: {name} -->\n).*?(<!-- end -->)", re.DOTALL)
        text, count = pattern.subn(lambda found, content=content: f"{found[1]}{content}\n{found[2]}", text)
        assert count == 1, f"the document has {count} places for {name}"
    document.write_text(text, encoding="utf-8")


def as_text(lines):
    return "\n\n".join(f"{name}\n\n{content}" for name, content in tables(lines).items())


def tables(lines):
    """The content of each table, by the name of its marker."""
    machines = [line["machine"] for line in lines if "machine" in line]
    made = {"hub-machine": f"Measured on: {machines[-1]}."} if machines else {}
    makers = {"load": ("hub-latency", latency_table, "hub-rate", rate_table, "hub-cost", cost_table),
              "crowd": ("hub-crowd", crowd_table), "stall": ("hub-stall", stall_table),
              "faults": ("hub-faults", faults_table)}
    for part, names in makers.items():
        own = [line for line in lines if line.get("part") == part]
        for name, maker in zip(names[::2], names[1::2]):
            if own:
                made[name] = maker(own)
    return made


def table(heads, rows):
    return "\n".join("| " + " | ".join(cells) + " |" for cells in (heads, ["---"] * len(heads), *rows))


def short(value):
    """Three digits, and separators between thousands."""
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def middle(lines, name):
    return statistics.median(line[name] for line in lines)


def ratio(lines, direct, name, factor=1):
    """The figure as a multiple of the direct client's of the same round; the median of all rounds."""
    pairs = [(line[name] * factor, other[name]) for line in lines for other in direct if line["round"] == other["round"]]
    return statistics.median(mine / theirs for mine, theirs in pairs if theirs)


def groups(lines):
    """(size, rate, direct lines, {(kind, consumers): lines})"""
    seen = {}
    for line in lines:
        seen.setdefault((line["size"], line["rate"]), {}).setdefault((line["kind"], line["consumers"]), []).append(line)
    for (size, rate), ways in seen.items():
        yield size, rate, ways.pop(("direct", 1)), ways


def lost_share(lines):
    lost = sum(line["missing"] for line in lines)
    return lost / max(sum(line["blocks"] for line in lines) + lost, 1)


def latency_table(lines):
    rows = []
    for size, rate, direct, ways in groups(lines):
        if not rate:
            continue
        own = f"{short(middle(direct, 'p50_us'))} / {short(middle(direct, 'p99_us'))}"
        for (kind, consumers), some in ways.items():
            lost = lost_share(some)
            rows.append([f"{size}, {rate} a second", f"{consumers} {KINDS[kind]}", own,
                         f"{short(middle(some, 'p50_us'))} / {short(middle(some, 'p99_us'))}",
                         f"{short(middle(some, 'p50_us') - middle(direct, 'p50_us'))}",
                         short(ratio(some, direct, "p50_us")), f"{100 * lost:.1f} %"])
    return table(["blocks", "consumers", "direct, p50 / p99 µs", "by the hub, p50 / p99 µs", "added, p50 µs", "÷ direct",
                  "lost"], rows)


def rate_table(lines):
    rows = []
    for size, rate, direct, ways in groups(lines):
        if rate:
            continue
        for (kind, consumers), some in ways.items():
            lost = lost_share(some)
            rows.append([size, f"{consumers} {KINDS[kind]}", short(middle(direct, "blocks_per_s")),
                         short(middle(some, "blocks_per_s") / consumers), short(middle(some, "blocks_per_s")),
                         short(middle(some, "mb_per_s")), short(ratio(some, direct, "blocks_per_s")),
                         f"{100 * lost:.0f} %"])
    return table(["blocks", "consumers", "direct, blocks/s", "each consumer, blocks/s", "together, blocks/s",
                  "together, MB/s", "together ÷ direct", "lost"], rows)


def cost_table(lines):
    rows = []
    for size, rate, direct, ways in groups(lines):
        if not rate:
            continue
        for (kind, consumers), some in ways.items():
            rows.append([f"{size}, {rate} a second", f"{consumers} {KINDS[kind]}", *costs(some),
                         f"{short(middle(direct, 'consumers_cpu_percent'))} %"])
    return table(["blocks", "consumers", *COST_HEADS, "CPU of the direct client"], rows)


COST_HEADS = ["CPU of the hub", "of its workers", "of the consumers", "memory of the hub, MB", "of its workers, MB"]


def costs(some):
    return [f"{short(middle(some, name + '_cpu_percent'))} %" for name in ("hub", "workers", "consumers")] + [
        short(middle(some, name + "_kb") / 1000) for name in ("hub", "workers")]


def crowd_table(lines):
    rows = []
    for kind in KINDS:
        some = [line for line in lines if line["kind"] == kind]
        if some:
            lost = sum(line["missing"] for line in some)
            rows.append([f"{some[0]['devices']} devices, {KINDS[kind]}", short(middle(some, "blocks_per_s")),
                         f"{short(middle(some, 'p50_us'))} / {short(middle(some, 'p99_us'))}", str(lost), *costs(some)])
    return table(["64 KiB, 10 a second of each", "blocks/s", "worst device, p50 / p99 µs", "lost", *COST_HEADS], rows)


def stall_table(lines):
    rows = []
    phases = ("before", "during", "after")
    hub = {line["phase"]: line for line in lines if line["group"] == "hub"}
    for group in dict.fromkeys(line["group"] for line in lines if line["group"] != "hub"):
        own = {line["phase"]: line for line in lines if line["group"] == group}
        stalls = not group.startswith("reads on")
        # The counts of the stall go on until all is read.
        lost = sum(own[phase]["missing"] for phase in ("before", "until all is read", "after"))
        times = [f"{short(own[phase]['p50_us'])} / {short(own[phase]['p99_us'])}" for phase in phases]
        if stalls:
            times[1] = "–"
        kind = group.rsplit(" ", 1)[1]
        rows.append([f"{own['before']['consumers']} {KINDS[kind]}, {group.split(',')[0]}", *times, str(lost),
                     f"{own['again']['ms']:.0f} ms" if stalls else "–"])
    rows.append(["memory of the hub, MB", *(short(hub[phase]["hub_kb"] / 1000) for phase in phases), "–", "–"])
    rows.append(["blocks that the hub counts as lost", *(str(hub[phase]["lost"]) for phase in phases), "–", "–"])
    return table(["consumers", "before, p50 / p99 µs", "during", "after", "lost", "first new block after"], rows)


def faults_table(lines):
    rows = []
    for what in dict.fromkeys(line["what"] for line in lines if "kind" in line):
        some = [line for line in lines if line["what"] == what]
        after = [line for line in lines if line["what"] == what + ", the time after"]
        for kind in dict.fromkeys(line["kind"] for line in some):
            times = [line["ms"] for line in some if line["kind"] == kind]
            rows.append([what, KINDS.get(kind, kind), str(len(times)), f"{min(times):,.0f}",
                         f"{statistics.median(times):,.0f}", f"{max(times):,.0f}",
                         f"{max(line['longest_pause_ms'] for line in after):,.0f}" if after else "–"])
    return table(["what", "consumers", "times", "least, ms", "median, ms", "most, ms", "longest pause afterwards, ms"],
                 rows)
