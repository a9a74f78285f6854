#!/usr/bin/env python3
"""Room quality of `quorlix rooms --replay` on recorded radio, beside two baselines.

The recordings: one beacon at 45 known points, 30 minutes each, heard at the same time by 12 fixed
receivers (the "Position Annotated BLE RSSI Dataset for Indoor Localization", CC0; see
/work/shared/data/README.md). For every point this builds the replay folder of one building,
DIR/<room>/<receiver>.csv with one time origin, in two layouts: the receivers' groups sensor1x,
2x, 3x, 4x as four rooms of three, and each receiver as its own room. It runs exactly

    quorlix rooms --replay DIR --fast --json [--calibration FILE]

and compares each second with the true room, the room of the receiver nearest the beacon.
Printed per layout: room accuracy, share of seconds without a room, room switches per minute
(every point stands still), for the command and for two baselines on the same seconds and
readings: the receiver with the strongest mean RSSI over the last 10 s, and multilateration with
the log-distance model (exponent 2) from those 10 s means, the room being that of the receiver
nearest the estimated position. Multilateration is a least-squares fit in dB on a 25 cm grid over
the receivers' floor (the beacon's power at 1 m fitted along, the beacon at the receivers' mean
height), redone every 5 s. Seconds before the 10th are the start-up and are left out.

Receiver offsets, as a user would calibrate them: for the point under evaluation, each receiver's
offset is the median of (model RSSI at the true distance - median recorded RSSI) over the OTHER
points within 3 m of it (a user standing the beacon at a known spot near each receiver); the
evaluated point's own recordings never enter its calibration. Both runs are shown, without and
with these offsets.

Moving beacon: for pairs of points in different rooms, each receiver's file is the first 120 s of
point A followed by 120 s of point B (the beacon carried across at once, a harder case than
walking); printed is the time until the command names B's true room and keeps it, over the pairs
where it ends in the right room.

    bench/rooms/room-quality.py build/tools/quorlix/quorlix /work/shared/data/ble-rssi-set2.tar.xz
"""
import argparse
import concurrent.futures
import glob
import json
import math
import os
import re
import statistics
import subprocess
import sys
import tarfile
import tempfile

UUID_HEX = "e187697975b543de92cb2bc1ad6ba999"
FRAME = "4c000215" + UUID_HEX + "0001" + "0001" + "c5"  # beacon 1-1, -59 dBm at 1 m
BEACON = "E7:8F:13:56:24:CE"
MEASURED_POWER = -59.0
EXPONENT = 2.0
SETTLE_S = 10
WINDOW_S = 10
CALIBRATION_RANGE_M = 3.0
SPLICE_S = 120
LATERATION_EVERY_S = 5
BASELINES = {}


def model_rssi(distance):
    return MEASURED_POWER - 10 * EXPONENT * math.log10(max(distance, 0.1))


def load(source, work):
    if os.path.isdir(source):
        root = source
    else:
        with tarfile.open(source) as archive:
            archive.extractall(work, filter="data")
        root = work
    device = open(glob.glob(os.path.join(root, "**", "tetam.dev"), recursive=True)[0]).read()
    dongles = json.loads(re.search(r"Dongles:(\{.*?\})\s*\n", device).group(1))
    receivers = {alias: tuple(position) for position, _, alias in dongles.values()}
    points = {}
    for path in glob.glob(os.path.join(root, "**", "set_2", "*.mbd"), recursive=True):
        name, x, y, z = os.path.basename(path)[:-4].split("_")
        rows = []
        for line in open(path):
            fields = line.strip().split(",")
            if len(fields) == 4:
                rows.append((float(fields[0]), int(fields[3])))
        points.setdefault((float(x), float(y), float(z)), {})[name] = rows
    return receivers, points


def room_of(layout, receiver):
    return "room" + receiver[6] if layout == "4x3" else receiver


def write_building(folder, layout, traces):
    """traces: receiver -> [(seconds from the common origin, rssi)]"""
    for receiver, rows in traces.items():
        room = os.path.join(folder, room_of(layout, receiver))
        os.makedirs(room, exist_ok=True)
        with open(os.path.join(room, receiver + ".csv"), "w") as out:
            out.write("time,address,rssi,manufacturer_data_hex\n")
            for time, rssi in rows:
                out.write(f"{time:.6f},{BEACON},{rssi},{FRAME}\n")


def relative(point_rows):
    origin = min(rows[0][0] for rows in point_rows.values() if rows)
    return {r: [(t - origin, v) for t, v in rows] for r, rows in point_rows.items() if rows}


def offsets_for(point, receivers, points):
    result = {}
    for receiver, position in receivers.items():
        residuals = []
        for other, rows in points.items():
            distance = math.dist(position, other)
            if other == point or distance > CALIBRATION_RANGE_M or not rows.get(receiver):
                continue
            residuals.append(model_rssi(distance) - statistics.median(v for _, v in rows[receiver]))
        result[receiver] = round(statistics.median(residuals), 1) if residuals else 0.0
    return result


def run_rooms(quorlix, folder, calibration):
    command = [quorlix, "rooms", "--replay", folder, "--fast", "--json"]
    if calibration:
        command += ["--calibration", calibration]
    done = subprocess.run(command, capture_output=True, text=True, timeout=600)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} failed: {done.stderr}")
    rooms = {}
    for line in done.stdout.splitlines():
        entry = json.loads(line)
        rooms[int(entry["time"])] = entry["room"]
    return rooms


def nearest(receivers, position):
    return min(receivers, key=lambda r: math.dist(receivers[r], position))


def baselines(traces, receivers, offsets, seconds):
    """Per second: the receiver of the strongest 10 s mean, and that nearest the multilaterated
    position, or None when nothing was heard in the window."""
    index = {r: 0 for r in traces}
    start = {r: 0 for r in traces}
    total = {r: 0.0 for r in traces}
    strongest, lateration = {}, {}
    grid = Grid(receivers)
    position = None
    for second in seconds:
        means = {}
        for r, rows in traces.items():
            while index[r] < len(rows) and rows[index[r]][0] <= second:
                total[r] += rows[index[r]][1]
                index[r] += 1
            while start[r] < index[r] and rows[start[r]][0] <= second - WINDOW_S:
                total[r] -= rows[start[r]][1]
                start[r] += 1
            count = index[r] - start[r]
            if count:
                means[r] = total[r] / count + offsets.get(r, 0)
        if not means:
            strongest[second] = lateration[second] = None
            continue
        strongest[second] = max(means, key=means.get)
        if position is None or second % LATERATION_EVERY_S == 0:
            position = grid.fit(means)
        lateration[second] = min(receivers, key=lambda r: math.dist(receivers[r][:2], position))
    return strongest, lateration


class Grid:
    """Multilateration by least squares in dB over a grid: dB errors are what the radio makes
    (log-normal fading), and a grid cannot diverge as an iteration on ranges does. A 1 m grid
    first, then 25 cm steps around its best cell."""

    def __init__(self, receivers):
        self.receivers = receivers
        self.height = statistics.mean(p[2] for p in receivers.values())
        xs = [p[0] for p in receivers.values()]
        ys = [p[1] for p in receivers.values()]
        self.coarse = [(x + 0.5, y + 0.5) for x in range(int(min(xs)) - 1, int(max(xs)) + 1)
                       for y in range(int(min(ys)) - 1, int(max(ys)) + 1)]

    def error(self, means, cell):
        # With the power at 1 m fitted, the error is the spread of rssi + loss around its mean.
        values = [m + 10 * EXPONENT * math.log10(max(
            math.dist((cell[0], cell[1], self.height), self.receivers[r]), 0.1))
                  for r, m in means.items()]
        mean = sum(values) / len(values)
        return sum((v - mean) ** 2 for v in values)

    def fit(self, means):
        means = {r: m for r, m in means.items() if r in self.receivers}
        x, y = min(self.coarse, key=lambda cell: self.error(means, cell))
        fine = [(x + i / 4, y + j / 4) for i in range(-4, 5) for j in range(-4, 5)]
        return min(fine, key=lambda cell: self.error(means, cell))


def score(decisions, truth, seconds):
    right = unknown = switches = 0
    previous = None
    for second in seconds:
        room = decisions.get(second)
        right += room == truth
        unknown += room is None
        if previous is not None and room is not None and room != previous:
            switches += 1
        if room is not None:
            previous = room
    return right, unknown, switches


def evaluate_point(args):
    quorlix, work, point, traces, receivers, offsets, layout = args
    folder = os.path.join(work, "buildings", layout, "_".join(map(str, point)))
    write_building(folder, layout, traces)
    calibration = None
    if offsets:
        calibration = folder + ".calibration.json"
        with open(calibration, "w") as out:
            json.dump({"receivers": [{"address": r, "rssiOffset": o}
                                     for r, o in offsets.items()]}, out)
    rooms = run_rooms(quorlix, folder, calibration)
    end = int(max(rows[-1][0] for rows in traces.values()))
    seconds = list(range(SETTLE_S, end + 1))
    # Both baselines name receivers, so one computation serves every layout.
    key = (point, bool(offsets))
    if key not in BASELINES:
        BASELINES[key] = baselines(traces, receivers, offsets or {}, seconds)
    strongest, lateration = BASELINES[key]
    truth = room_of(layout, nearest(receivers, point))
    to_room = lambda d: {s: room_of(layout, r) if r else None for s, r in d.items()}
    return {"seconds": len(seconds),
            "rooms": score(rooms, truth, seconds),
            "strongest": score(to_room(strongest), truth, seconds),
            "lateration": score(to_room(lateration), truth, seconds)}


def evaluate_move(args):
    quorlix, work, a, b, traces_a, traces_b, receivers, layout = args
    traces = {}
    for r in traces_a:
        if r in traces_b:
            traces[r] = [(t, v) for t, v in traces_a[r] if t < SPLICE_S] + \
                [(t, v) for t, v in traces_b[r] if SPLICE_S <= t < 2 * SPLICE_S]
    folder = os.path.join(work, "moves", layout, "_".join(map(str, a + b)))
    write_building(folder, layout, traces)
    rooms = run_rooms(quorlix, folder, None)
    truth = room_of(layout, nearest(receivers, b))
    end = 2 * SPLICE_S
    if rooms.get(end) != truth:
        return None
    settled = end
    while settled - 1 > SPLICE_S and rooms.get(settled - 1) == truth:
        settled -= 1
    return settled - SPLICE_S


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("quorlix")
    parser.add_argument("recordings", help="ble-rssi-set2.tar.xz or its unpacked folder")
    parser.add_argument("--jobs", type=int, default=2)
    options = parser.parse_args()
    quorlix = os.path.realpath(options.quorlix)
    with tempfile.TemporaryDirectory() as work:
        receivers, points = load(options.recordings, work)
        relative_traces = {p: relative(rows) for p, rows in points.items()}
        medians_offsets = {p: offsets_for(p, receivers, points) for p in points}
        print(f"{len(points)} points, {len(receivers)} receivers; "
              f"{sum(len(r) for rows in points.values() for r in rows.values())} readings\n")
        print("| layout | offsets | method | room accuracy | no room | switches/min |")
        print("|---|---|---|---|---|---|")
        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            for layout in ("4x3", "12x1"):
                for calibrated in (False, True):
                    jobs = [(quorlix, work, p, relative_traces[p], receivers,
                             medians_offsets[p] if calibrated else None, layout)
                            for p in sorted(points)]
                    results = list(pool.map(evaluate_point, jobs))
                    seconds = sum(r["seconds"] for r in results)
                    for method, label in (("rooms", "**quorlix rooms**"),
                                          ("strongest", "strongest 10 s mean"),
                                          ("lateration", "multilateration")):
                        right = sum(r[method][0] for r in results)
                        unknown = sum(r[method][1] for r in results)
                        switches = sum(r[method][2] for r in results)
                        print(f"| {layout} | {'calibrated' if calibrated else 'none'} | {label} | "
                              f"{100 * right / seconds:.1f}% | {100 * unknown / seconds:.2f}% | "
                              f"{switches / (seconds / 60):.3f} |")
                    sys.stdout.flush()
            print("\n| layout | moves | ended right | settled within 10 s | median | p90 | max |")
            print("|---|---|---|---|---|---|---|")
            ordered = sorted(points)
            for layout in ("4x3", "12x1"):
                jobs = []
                for i, a in enumerate(ordered):
                    room_a = room_of(layout, nearest(receivers, a))
                    b = next(p for p in ordered[i + 1:] + ordered[:i]
                             if room_of(layout, nearest(receivers, p)) != room_a)
                    jobs.append((quorlix, work, a, b, relative_traces[a], relative_traces[b],
                                 receivers, layout))
                latencies = sorted(l for l in pool.map(evaluate_move, jobs) if l is not None)
                within = sum(l <= 10 for l in latencies)
                p90 = latencies[int(0.9 * (len(latencies) - 1))] if latencies else "-"
                print(f"| {layout} | {len(jobs)} | {len(latencies)} | {within} | "
                      f"{statistics.median(latencies) if latencies else '-'} s | {p90} s | "
                      f"{latencies[-1] if latencies else '-'} s |")


if __name__ == "__main__":
    main()
