"""The figures of bench/compare, bench/waits and bench/journey as tables of Markdown."""
import goals
from markdown import number, table
from points import (DDS, DIRECTIONS, FRAMED, LINKS, MQTT, NNG, PERCENTILES, RATES, SIZES, UNFRAMED, ZMQ, cores, size_of,
                    streams)

PRIVATE_SIZES = (64, 1024, 65536, 1000000)
BEFORE = "lumora-before"


def all_tables(data, waits, journeys):
    """The content of each table, by the name of its marker."""
    pingpong = {f"pingpong-{size}": SIZES[size] for size in (64, 1024, 65536)}
    paced = {f"paced-{rate}{suffix}": f"{rate} Hz, {link}" for suffix, link in LINKS.items() for rate in RATES}
    seen = {
        "machine": f"Measured on: {data.machine}; rounds of bench/compare: {data.rounds()}.",
        "goals": goal_table(data, waits, journeys),
        "streams": stream_table(data),
        "crowded": crowded_table(data),
        "pingpong": latency_table(data, pingpong, {"two connections": ("tcp-pair",), "ZeroMQ": ("zmq-pair",),
                                                   "nng": ("nng-pair",), "DDS": DDS, "MQTT": MQTT}),
        "paced": latency_table(data, paced, {"ZeroMQ": ("zmq-pushpull",), "nng": ("nng-pushpull",), "DDS": DDS,
                                             "MQTT": MQTT}),
        "paced-cpu": paced_cpu_table(data, paced),
        "private": private_table(data),
        "waits": waits_table(waits),
    }
    if any(key[2] == BEFORE for key in data.series):
        seen["before"] = before_table(data)
    if journeys.series:
        seen["journey"] = journey_table(journeys)
    return seen


def stream_table(data):
    rivals = {"framed TCP": FRAMED, "plain TCP": UNFRAMED, "ZeroMQ": ZMQ, "nng": NNG, "DDS": DDS, "MQTT": MQTT}
    head = ["stream", "cores", "MB/s", "blocks/s", *(f"× {words}" for words in rivals), "CPU s/GB",
            "CPU × framed TCP", "peak kB, client", "peak kB, device"]
    rows = []
    for point, words in streams().items():
        sender, receiver = ("sender_peak_kb", "receiver_peak_kb")[:: 1 if point.startswith("up") else -1]
        for placement in data.placements():
            key = (placement, point, "lumora")
            rows.append([words, cores(placement), number(data.median(*key, "mb_per_s")),
                         number(data.median(*key, "frames_per_s")),
                         *(number(data.ratio(placement, point, "mb_per_s", those)) for those in rivals.values()),
                         number(data.median(*key, "cpu_s_per_gb")),
                         number(data.ratio(placement, point, "cpu_s_per_gb", FRAMED)),
                         number(data.median(*key, sender)), number(data.median(*key, receiver))])
    return table(head, rows)


def crowded_table(data):
    """Both directions at once, and ten subscribers of one stream."""
    points = {f"both-{size}": f"both directions at once, {SIZES[size]}" for size in (1024, 65536)}
    points |= {f"down-{size}-ten": f"ten subscribers, {SIZES[size]}" for size in (1024, 65536)}
    rivals = {"framed TCP": FRAMED, "nng": ("nng-pair",), "DDS": DDS, "MQTT": MQTT}
    rows = [[words, cores(placement), number(data.median(placement, point, "lumora", "mb_per_s")),
             *(number(data.ratio(placement, point, "mb_per_s", those)) for those in rivals.values()),
             number(data.median(placement, point, "lumora", "cpu_s_per_gb"))]
            for point, words in points.items() for placement in data.placements()]
    return table(["what", "cores", "MB/s", *(f"× {words}" for words in rivals), "CPU s/GB"], rows)


def before_table(data):
    """An older build beside this one."""
    rows = []
    for point, words in {**streams(), "pingpong-64": "there and back, 64 B, p50 µs"}.items():
        for placement in data.placements():
            name = "mb_per_s" if point in streams() else "p50_us"
            values = [data.median(placement, point, pipe, name) for pipe in (BEFORE, "lumora", "tcp-framed",
                                                                             "tcp-unframed")]
            ratios = [data.ratio(placement, point, name, [pipe], own=own)
                      for own, pipe in (("lumora", BEFORE), (BEFORE, "tcp-framed"), ("lumora", "tcp-framed"),
                                        ("lumora", "tcp-unframed"))]
            if values[0] is not None:
                rows.append([words, cores(placement), *map(number, values), *map(number, ratios)])
    return table(["what", "cores", "before", "now", "framed TCP", "plain TCP", "now × before", "before × framed",
                  "now × framed", "now × plain"], rows)


def latency_table(data, points, rivals):
    head = ["what", "cores", "p50 µs", "p99 µs", "p99.9 µs", "p50 × TCP", "p99 × TCP",
            *(f"p50 × {words}" for words in rivals)]
    rows = []
    for point, words in points.items():
        for placement in data.placements():
            rows.append([words, cores(placement),
                         *(number(data.median(placement, point, "lumora", name)) for name in PERCENTILES),
                         number(data.ratio(placement, point, "p50_us", FRAMED)),
                         number(data.ratio(placement, point, "p99_us", FRAMED)),
                         *(number(data.ratio(placement, point, "p50_us", those, min))
                           for those in rivals.values())])
    return table(head, rows)


def paced_cpu_table(data, points):
    """Processor time of both processes for each block."""
    pipes = {"lumora": "Lumora", "tcp-framed": "framed TCP", "zmq-pushpull": "ZeroMQ", "nng-pushpull": "nng",
             "dds": "DDS", "mqtt": "MQTT"}
    rows = [[words, cores(placement),
             *(number(data.median(placement, point, pipe, "cpu_us_per_block")) for pipe in pipes)]
            for point, words in points.items() for placement in data.placements()]
    return table(["what", "cores", *pipes.values()], rows)


def private_table(data):
    """What encryption costs each library. Of ping-pong the times."""
    pipes = {"lumora-private": "Lumora, private", "lumora": "Lumora, plain", "tcp-tls": "TLS sockets",
             "tcp-framed": "plain sockets", "zmq-curve": "ZeroMQ, CURVE", "mqtt-tls": "MQTT over TLS"}
    rows = []
    for point in [f"{direction}-{size}" for size in PRIVATE_SIZES for direction in DIRECTIONS] + ["pingpong-1024"]:
        is_stream = not point.startswith("pingpong")
        name, unit = ("mb_per_s", "MB/s") if is_stream else ("p50_us", "µs")
        what = f"{DIRECTIONS.get(point.split('-')[0], 'there and back')}, {SIZES[size_of(point)]}, {unit}"
        for placement in data.placements():
            point_of_all = f"{point}-private"
            values = [data.median(placement, point_of_all, pipe, name) for pipe in pipes]
            rows.append([what, cores(placement), *map(number, values),
                         number(data.ratio(placement, point_of_all, name, ["tcp-tls"], own="lumora-private"))])
    return table(["what", "cores", *pipes.values(), "private × TLS sockets"], rows)


def waits_table(waits):
    rows = [[what, f"{number(waits.median(what))} {waits.units[what]}",
             f"{number(min(values))} to {number(max(values))}"] for what, values in waits.series.items()]
    return table(["what", "median", "all rounds"], rows)


def journey_table(journeys):
    """A line for each library and size of the network, a column for each step."""
    steps, rows = [], {}
    for what, values in journeys.series.items():
        line, step = what.split(": ")
        steps += [step] if step not in steps else []
        spread = f"{number(journeys.median(what))} ({number(min(values))} to {number(max(values))})"
        rows.setdefault(line, {})[step] = spread
    names = {"lumora": "Lumora", "dds": "Cyclone DDS", "avahi": "Avahi with ZeroMQ"}
    cells = [[f"{names[line.split(', ')[0]]}, {line.split(', ')[1]}", *(row.get(step, "-") for step in steps)]
             for line, row in rows.items()]
    return table(["ms since the start of the process", *steps], cells)


def goal_table(data, waits, journeys):
    rows = []
    for what, wanted, seen, point, goal, at_most in goals.all_goals(data, waits, journeys):
        met = "-" if seen is None else "yes" if (seen <= goal if at_most else seen >= goal) else "**no**"
        if "; rounds" in point and seen is not None:
            met += ", as far as noise lets two p99 be compared"
        rows.append([what, wanted, number(seen), point, met])
    return table(["what", "aim", "worst median", "where", "reached"], rows)
