"""What bench/compare measures, as its points are named, and the words for it in charts and tables."""
SIZES = {64: "64 B", 1024: "1 KiB", 16384: "16 KiB", 65536: "64 KiB", 262144: "256 KiB", 1000000: "1 MB",
         5242880: "5 MiB"}
SMALL, LARGE = (64, 1024), (16384, 65536, 262144, 1000000)
PLACEMENTS = {"one-core": "one core for both", "two-cores": "one core each"}
DIRECTIONS = {"up": "client to device", "down": "device to client"}
PERCENTILES = ("p50_us", "p99_us", "p999_us")
LINKS = {"": "loopback", "-delayed": "1 ms link"}
RATES = (100, 1000, 5000)
ZMQ, NNG, FRAMED = ("zmq-pushpull", "zmq-pair"), ("nng-pushpull", "nng-pair"), ("tcp-framed",)
UNFRAMED, DDS, MQTT = ("tcp-unframed",), ("dds",), ("mqtt",)


def sizes_of(direction):
    return [size for size in SIZES if direction == "up" or size <= 1000000]


def size_of(point):
    return int(point.split("-")[1])


def streams():
    """Each stream of one direction, with its words."""
    return {f"{direction}-{size}": f"{words}, {SIZES[size]}"
            for direction, words in DIRECTIONS.items() for size in sizes_of(direction)}


def cores(placement):
    return "1" if placement == "one-core" else "2"
