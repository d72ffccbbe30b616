"""What is aimed at, and what was found at worst."""
from markdown import number
from points import DIRECTIONS, FRAMED, NNG, PLACEMENTS, SIZES, SMALL, UNFRAMED, ZMQ, sizes_of

EVERYWHERE = tuple(PLACEMENTS)


def all_goals(data, waits, journeys):
    """What is held to, the aim in words, the worst median, the point that it is of, the aim, and whether it is the
    most that is allowed."""
    yield from stream_goals(data)
    yield from latency_goals(data)
    yield from waits_goals(waits)
    yield from journey_goals(journeys)


def stream_goals(data):
    middle, huge = [size for size in SIZES if size >= 16384], [size for size in SIZES if size >= 262144]
    without_copy = [65536, 1000000]
    at_least = [("streams of 16 KiB and more ÷ framed TCP", middle, FRAMED, 0.95, EVERYWHERE),
                ("streams of 64 KiB and 1 MB ÷ plain TCP", without_copy, UNFRAMED, 0.9, EVERYWHERE),
                ("streams of 256 KiB and more ÷ ZeroMQ", huge, ZMQ, 1.0, EVERYWHERE),
                ("streams of 256 KiB and more ÷ nng", huge, NNG, 1.0, EVERYWHERE),
                ("streams of 64 B ÷ framed TCP, one core", [64], FRAMED, 2.9, ["one-core"]),
                ("streams of 64 B ÷ framed TCP, two cores", [64], FRAMED, 2.2, ["two-cores"]),
                ("streams of 1 KiB ÷ framed TCP, one core", [1024], FRAMED, 2.1, ["one-core"]),
                ("streams of 1 KiB ÷ framed TCP, two cores", [1024], FRAMED, 1.6, ["two-cores"]),
                ("streams of 64 B and 1 KiB ÷ nng", SMALL, NNG, 5.0, EVERYWHERE)]
    for what, sizes, rivals, goal, placements in at_least:
        seen = worst(data, stream_points(data, sizes, placements), "mb_per_s", rivals, min, max)
        yield what, f"≥ {goal:g}", *seen, goal, False
    for what, rivals, goal in (("framed TCP", FRAMED, 1.15), ("ZeroMQ", ZMQ, 1.0), ("nng", NNG, 1.0)):
        yield (f"CPU per GB at 1 MB ÷ {what}", f"≤ {goal:g}",
               *worst(data, stream_points(data, [1000000]), "cpu_s_per_gb", rivals, max, min), goal, True)


def latency_goals(data):
    at_most = [("ping-pong p50 ÷ framed TCP", "pingpong", "p50_us", FRAMED, 1.15, EVERYWHERE),
               ("the same ÷ framed TCP with two connections", "pingpong", "p50_us", ("tcp-pair",), 1.15, EVERYWHERE),
               ("ping-pong p99 ÷ framed TCP", "pingpong", "p99_us", FRAMED, 1.15, EVERYWHERE),
               ("ping-pong p50 ÷ ZeroMQ, one core", "pingpong", "p50_us", ("zmq-pair",), 0.6, ["one-core"]),
               ("ping-pong p50 ÷ ZeroMQ, two cores", "pingpong", "p50_us", ("zmq-pair",), 1.0, ["two-cores"]),
               ("paced streams' p99 ÷ framed TCP", "paced", "p99_us", FRAMED, 1.3, EVERYWHERE)]
    for what, points, name, rivals, goal, placements in at_most:
        yield (what, f"≤ {goal:g}", *worst(data, latency_points(data, points, placements), name, rivals, max, min),
               goal, True)


def waits_goals(waits):
    search = "first LUM_GetAiDeviceList, {} on the network"
    yield "LUM_ConnectAiDevice", "< 15 ms", waits.median("LUM_ConnectAiDevice"), "", 15, True
    yield "stop of a transport", "< 10 ms", *waits.worst("stop"), 10, True
    yield "end of file to OnDisconnect", "< 5 ms", *waits.worst("end of file"), 5, True
    yield "first LUM_GetAiDeviceList, 1 device", "≤ 20 ms", waits.median(search.format(1)), "", 20, True
    yield "the same with 200 devices", "≤ 60 ms", waits.median(search.format(200)), "", 60, True
    yield "wake-ups of an idle client", "≤ 1.5 a second", waits.median("idle client: wake-ups"), "", 1.5, True
    yield "memory of a client with one connection", "< 12,000 kB", *waits.worst("idle client: of that"), 12000, True
    yield "heap growth over all messages", "0 B", *waits.worst("heap growth"), 0, True


def journey_goals(journeys):
    for count, goal in ((1, 25), (200, 80)):
        yield (f"start of the process to the first block, {count} on the network", f"≤ {goal} ms",
               journeys.median(f"lumora, {count} on the network: first block"), "", goal, True)


def worst(data, points, name, rivals, choose, best):
    """Lumora's ratio at the point that looks worst, and which point that is. A p99 is one of few late blocks, so the
    range of the rounds stands beside it."""
    found = []
    for placement, point in points:
        ratio = data.ratio(placement, point, name, rivals, best)
        if ratio is not None:
            rounds = data.ratios(placement, point, name, rivals, best)
            noise = f"; rounds {number(min(rounds))} to {number(max(rounds))}" if name == "p99_us" else ""
            found.append((ratio, f"{point}, {PLACEMENTS[placement]}{noise}"))
    return choose(found) if found else (None, "")


def stream_points(data, sizes, placements=EVERYWHERE):
    return [(placement, f"{direction}-{size}") for placement in placements
            for direction in DIRECTIONS for size in sizes if size in sizes_of(direction)]


def latency_points(data, beginnings, placements):
    names = {key[1] for key in data.series}
    return [(placement, name) for placement in placements
            for name in sorted(names) if name.startswith(beginnings) and not name.endswith("-private")]
