"""One million points through the Python package's batch calls, against a Python loop over the
single-point calls and against the same work in C++, measured side by side in one run.

    QUELWORKS_LIBRARY=build/bench/libquelworks_c.so \\
        python3 python/bench/batch_bench.py --reference build/bench/bench/capi/qw_bench_capi_batch

The reference program (bench/capi/batch_reference_bench.cpp, preset "bench") calls the C++
functions point by point and the C batch calls from C++; this script runs it with the same number
of repetitions and makes the same points with the same generator. Times are CPU times of the
process (the machine may be shared), medians of the repetitions. The single-call loops run over
the first --loop-points points and are given per point.
"""

import argparse
import ctypes
import json
import os
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))

import numpy  # noqa: E402

import quelworks  # noqa: E402
from quelworks import _native  # noqa: E402

XS = [0, 40, 80, 120, 160, 160, 160, 160, 160, 120, 80, 40, 0, 0, 0, 0]
YS = [0, 10, 0, 10, 0, 40, 80, 120, 160, 150, 160, 150, 160, 120, 80, 40]
POLYGON = [(float(x), float(y)) for x, y in zip(XS, YS)] + [(0.0, 0.0)]
# 3 x 3 grid, row by row: camera (80x, 80y) to device (21x + y, 19y - x).
POINTS = 1_000_000  # as in the C++ reference
GRID = [((x * 80.0, y * 80.0), (float(x * 21 + y), float(y * 19 - x)))
        for y in range(3) for x in range(3)]


def make_points(n):
    """The linear congruential points of the C++ reference, as an n x 2 float32 array."""
    raw = numpy.empty(2 * n, dtype=numpy.uint32)
    seed = 1
    for i in range(2 * n):
        seed = (seed * 1103515245 + 12345) & 0xFFFFFFFF
        raw[i] = (seed >> 8) % 2000
    values = raw.astype(numpy.float32) / numpy.float32(10.0) - numpy.float32(20.0)
    return values.reshape(n, 2)


def cpu_median(function, repetitions):
    times = []
    result = None
    for _ in range(repetitions):
        start = time.process_time()
        result = function()
        times.append(time.process_time() - start)
    return statistics.median(times), result


def reference(program, repetitions):
    """Median CPU seconds per benchmark of the C++ program."""
    out = subprocess.run(
        [program, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
         "--benchmark_report_aggregates_only=true"],
        check=True, capture_output=True, text=True).stdout
    medians = {}
    for entry in json.loads(out)["benchmarks"]:
        # The median of the repetitions, or the only run when there is one repetition.
        if entry.get("aggregate_name", "median") == "median":
            scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[entry["time_unit"]]
            medians[entry.get("run_name", entry["name"])] = entry["cpu_time"] * scale
    return medians


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--reference", required=True, help="the qw_bench_capi_batch program")
    parser.add_argument("--loop-points", type=int, default=100_000)
    parser.add_argument("--repetitions", type=int, default=5)
    args = parser.parse_args()
    n, reps = POINTS, args.repetitions

    points = make_points(n)
    point_list = [tuple(map(float, p)) for p in points]
    loop = point_list[:args.loop_points]
    polygon_array = numpy.array(POLYGON, dtype=numpy.float32)
    lib = _native.lib

    # Raw ctypes single calls with everything prepared outside the loop: the cheapest loop.
    poly_c, poly_n = quelworks._points(POLYGON)
    cal_c, cal_n = quelworks._calibration(GRID)
    inside_c = ctypes.c_int32()
    device_c = _native.Point()

    def raw_pip():
        f, ref = lib.qw_geo_point_in_polygon, ctypes.byref(inside_c)
        return [f(poly_c, poly_n, x, y, ref) or inside_c.value for x, y in loop]

    def raw_transform():
        f, ref = lib.qw_geo_transform, ctypes.byref(device_c)
        return [f(cal_c, cal_n, x, y, ref) or (device_c.x, device_c.y) for x, y in loop]

    cases = {}
    cpp = reference(args.reference, reps)
    cases["pip batch numpy"], inside = cpu_median(
        lambda: quelworks.points_in_polygon(polygon_array, points), reps)
    cases["pip batch list"], inside_list = cpu_median(
        lambda: quelworks.points_in_polygon(POLYGON, point_list), max(1, reps // 2))
    cases["pip loop package"], single = cpu_median(
        lambda: [quelworks.point_in_polygon(POLYGON, x, y) for x, y in loop], 1)
    cases["pip loop raw"], _ = cpu_median(raw_pip, 1)
    cases["tr batch numpy"], mapped = cpu_median(
        lambda: quelworks.transform_many(GRID, points), reps)
    cases["tr batch list"], _ = cpu_median(
        lambda: quelworks.transform_many(GRID, point_list), max(1, reps // 2))
    cases["tr loop package"], single_tr = cpu_median(
        lambda: [quelworks.transform(GRID, x, y) for x, y in loop], 1)
    cases["tr loop raw"], _ = cpu_median(raw_transform, 1)

    # The batch calls give what the single calls give.
    assert inside.tolist()[:len(loop)] == single and inside_list == inside.tolist()
    assert [tuple(map(float, p)) for p in mapped[:len(loop)]] == single_tr

    per_point = {k: v / (len(loop) if "loop" in k else n) for k, v in cases.items()}
    print(f"{n} points, {reps} repetitions (loops: {len(loop)} points, once); CPU time, median")
    print(f"{'case':36} {'per 1M points':>11} {'per point':>11}")
    rows = [
        ("point in polygon: C++ loop", cpp["BM_PointInPolygon1M_Cpp"] / n),
        ("point in polygon: C batch from C++", cpp["BM_PointInPolygon1M_C_Batch"] / n),
        ("point in polygon: Python batch numpy", per_point["pip batch numpy"]),
        ("point in polygon: Python batch list", per_point["pip batch list"]),
        ("point in polygon: Python loop", per_point["pip loop package"]),
        ("point in polygon: Python loop ctypes", per_point["pip loop raw"]),
        ("transform: C++ loop", cpp["BM_Transform1M_Cpp"] / n),
        ("transform: C batch from C++", cpp["BM_Transform1M_C_Batch"] / n),
        ("transform: Python batch numpy", per_point["tr batch numpy"]),
        ("transform: Python batch list", per_point["tr batch list"]),
        ("transform: Python loop", per_point["tr loop package"]),
        ("transform: Python loop ctypes", per_point["tr loop raw"]),
    ]
    for name, seconds in rows:
        print(f"{name:36} {seconds * 1e9:8.1f} ms {seconds * 1e9:8.1f} ns")
    for area, key, cpp_key in (("point in polygon", "pip", "BM_PointInPolygon1M_Cpp"),
                               ("transform", "tr", "BM_Transform1M_Cpp")):
        batch = per_point[f"{key} batch numpy"]
        print(f"{area}: batch (numpy) is {per_point[f'{key} loop package'] / batch:.0f}x the "
              f"package loop, {per_point[f'{key} loop raw'] / batch:.0f}x the ctypes loop, "
              f"{batch / (cpp[cpp_key] / n):.2f}x the C++ loop's time; "
              f"batch (list) {per_point[f'{key} batch list'] / (cpp[cpp_key] / n):.2f}x")


if __name__ == "__main__":
    main()
