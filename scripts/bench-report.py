#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs every benchmark next to its peers and writes one table of where the
library stands: build/bench/report.txt and build/bench/report.json.

Usage: scripts/bench-report.py [--build build] [--repetitions 5]
                               [--min-time 0.5] [--runs 5] [--skip-programs]
                               [--only-programs]

Each benchmark program runs once with every benchmark repeated
(--repetitions), the repetitions of all its benchmarks interleaved in random
order, so that a burst of load on a shared machine spreads over ours and the
peer's alike; the figure quoted for each is the median of its repetitions.
A row's ratio is ours / peer in time (for throughput rows, peer / ours), so
below 1 means faster than the peer; "goal" is the largest ratio the row aims
for.  The spread column (max/min of the repetitions, ours and the peer's)
says how much to trust a ratio: on a noisy machine a ratio within the spread
of 1.0 is a draw.

The whole-program rows time `sorvel annexb` and `sorvel probe --samples
--json` against ffmpeg's and ffprobe's equivalents with hyperfine (median
of --runs runs after a warm-up run), and their peak memory with
/usr/bin/time -v, on a 1080p H.264 MP4 of at least 50 MB that ffmpeg makes
once into build/bench/ (never committed).  Beside them run their floors,
bench/demux_floor.c: bare libavformat programs that read every packet (and,
for the conversion, programs writing as many bytes, alone and while reading),
which no tool built on libavformat can beat.
"""

import argparse
import json
import os
import re
import shutil
import statistics
import subprocess
import sys

# ---- the hot paths ----------------------------------------------------------
# (row name, program, our run name, [(peer label, peer run name)], metric, goal)
# metric "time": lower is better, ratio = ours / peer.
# metric "rate": items per second, higher is better, ratio = peer / ours.
# metric "absolute": no peer; the goal is a time in ns and ratio = ours / goal.
# A run name that starts with "re:" is a regular expression.
HOT_PATHS = [
    ("simple queue, two threads, capacity 256", "SVSimpleQueue_bench", "BM_SVSimpleQueue_TwoThreads/256/real_time",
     [("Boost spsc_queue", "BM_BoostSpscQueue_TwoThreads/256/real_time")], "rate", 1.0),
    ("simple queue, two threads, capacity 4096", "SVSimpleQueue_bench", "BM_SVSimpleQueue_TwoThreads/4096/real_time",
     [("Boost spsc_queue", "BM_BoostSpscQueue_TwoThreads/4096/real_time")], "rate", 1.0),
    ("simple queue enqueue+dequeue, one thread", "SVSimpleQueue_bench", "BM_SVSimpleQueue_EnqueueDequeue",
     [("Boost spsc_queue", "BM_BoostSpscQueue_PushPop")], "time", 1.5),
    ("SVTimeConvertScale", "SVTime_bench", "BM_SVTimeConvertScale",
     [("av_rescale_rnd", "BM_av_rescale_rnd"), ("gst_util_uint64_scale", "BM_gst_util_uint64_scale")], "time", 1.0),
    ("memory pool 1 MiB allocate+free", "SVMemoryPool_bench", "BM_SVMemoryPool/size:1048576/touch:0",
     [("malloc/free, process with threads", "BM_Malloc_ThreadedProcess/size:1048576/touch:0/manual_time"),
      ("malloc/free, no thread started", "BM_Malloc/size:1048576/touch:0")], "time", 1.0),
    ("memory pool 1 MiB allocate+free (vs pool)", "SVMemoryPool_bench", "BM_SVMemoryPool/size:1048576/touch:0",
     [("AVBufferPool", "BM_AVBufferPool/size:1048576/touch:0")], "time", 0.5),
    ("buffer queue sorted, duration trigger (per batch of 32)", "SVBufferQueue_bench",
     "BM_SVBufferQueue_SortedDurationAndCountTriggers", [("GstDataQueue push+pop", "BM_GstDataQueue_PushPop")],
     "time", 2.0),
    ("buffer queue sorted, two count triggers (per batch of 32)", "SVBufferQueue_bench",
     "BM_SVBufferQueue_SortedTwoCountTriggers", [("GstDataQueue push+pop", "BM_GstDataQueue_PushPop")], "time", 1.5),
    ("SVTimebaseGetTime, one timebase on the host clock", "SVSync_bench", "BM_SVTimebaseGetTime_OneOnHostClock",
     [("gst_clock_get_time", "BM_gst_clock_get_time_SystemClock")], "time", 1.0),
    ("block buffer copy out, 1 MB of several pieces", "SVBlockBuffer_bench", "re:^BM_SVBlockBuffer_Copy/(?!16384$)\\d+$",
     [("GstBuffer extract", "re:^BM_GstBuffer_Copy/(?!16384$)\\d+$")], "time", 1.05),
    ("block buffer copy out, 16 KB of several pieces", "SVBlockBuffer_bench", "BM_SVBlockBuffer_Copy/16384",
     [("GstBuffer extract", "BM_GstBuffer_Copy/16384")], "time", 1.05),
    # The same with the pieces apart in memory, so that none can be merged.
    ("block buffer copy out, 1 MB of pieces apart", "SVBlockBuffer_bench",
     "re:^BM_SVBlockBuffer_CopyApart/(?!16384$)\\d+$",
     [("GstBuffer extract", "re:^BM_GstBuffer_Copy/(?!16384$)\\d+$")], "time", 1.05),
    ("block buffer copy out, 16 KB of pieces apart", "SVBlockBuffer_bench", "BM_SVBlockBuffer_CopyApart/16384",
     [("GstBuffer extract", "BM_GstBuffer_Copy/16384")], "time", 1.05),
    ("retain+release pair, uncontended", "platform_bench", "BM_RetainRelease",
     [("std::shared_ptr copy", "BM_SharedPtrCopy"), ("gst_mini_object_ref/unref", "BM_GstMiniObjectRefUnref")],
     "best", 1.0),
    ("output presentation time with trims and speed", "SVSampleBuffer_bench",
     "BM_SVSampleBuffer_OutputPresentationTimeStamp/1", [], "absolute", 40.0),
    ("output decode time with trims and speed", "SVSampleBuffer_bench", "BM_SVSampleBuffer_OutputDecodeTimeStamp/1",
     [], "absolute", 60.0),
    ("output presentation time, no attachments", "SVSampleBuffer_bench",
     "BM_SVSampleBuffer_OutputPresentationTimeStamp/0", [], "absolute", 40.0),
    ("output decode time, no attachments", "SVSampleBuffer_bench", "BM_SVSampleBuffer_OutputDecodeTimeStamp/0", [],
     "absolute", 60.0),
    # Paths that already lead and must stay ahead.
    ("time addition (kept ahead)", "SVTime_bench", "BM_SVTimeAdd_DifferentTimescales",
     [("av_add_stable", "BM_av_add_stable_DifferentTimescales")], "time", 1.0),
    ("Annex B conversion of an access unit (kept ahead)", "SVNALUnit_bench", "BM_AnnexB_Sorvel",
     [("FFmpeg h264_mp4toannexb", "BM_AnnexB_FFmpegBSF")], "time", 1.0),
    ("flexible NAL scanning (kept ahead)", "SVNALUnit_bench", "BM_Enumerate_SorvelFlexible",
     [("memcpy of the same bytes", "BM_Enumerate_Memcpy")], "time", 1.0),
    ("sample buffer creation, existing block (kept ahead)", "SVSampleBuffer_bench", "BM_SVSampleBuffer_CreateExisting",
     [("GstBuffer", "BM_GstBuffer_CreateExisting")], "time", 1.0),
    ("sample buffer creation, wrapped bytes (kept ahead)", "SVSampleBuffer_bench", "BM_SVSampleBuffer_CreateWrapped",
     [("GstBuffer", "BM_GstBuffer_CreateWrapped")], "time", 1.0),
]


# ---- floors --------------------------------------------------------------------
# Where a goal cannot be met on this design, the floor the path stands on,
# measured in the same program: (label, run name, why).  A row within
# FLOOR_SLACK of its floor is reported as "at floor" rather than "NOT MET".
FLOOR_SLACK = 1.25
FLOORS = {
    "simple queue, two threads, capacity 256":
        ("the peer's ring, each push and pop behind a call that is not inlined",
         "BM_Floor_SpscBehindCalls_TwoThreads/256/real_time",
         "the peer is a header-only template, inlined into both loops; ours is two exported calls per item, "
         "and behind the same calls the peer's ring moves fewer items than ours"),
    "simple queue, two threads, capacity 4096":
        ("the peer's ring, each push and pop behind a call that is not inlined",
         "BM_Floor_SpscBehindCalls_TwoThreads/4096/real_time",
         "the peer is a header-only template, inlined into both loops; ours is two exported calls per item, "
         "and behind the same calls the peer's ring moves fewer items than ours"),
    "simple queue enqueue+dequeue, one thread":
        ("two trivial calls across the library boundary", "BM_SVSimpleQueue_TwoCallsFloor",
         "the peer is a header-only template, inlined into the loop; ours is two exported calls"),
    "SVTimeConvertScale":
        ("a non-inlined call passing and returning a 24-byte time, one division", "BM_Floor_ConvertScaleShape",
         "the C interface passes and returns SVTime in memory; the peers take and return integers in registers"),
    "memory pool 1 MiB allocate+free":
        ("the allocator calls, two compare-and-swaps and a coarse clock read",
         "BM_Floor_AllocatorCallsTwoCompareExchangesAndAClockRead",
         "blocks are shared by every thread (one atomic read-modify-write per call) and each free records its "
         "release time for the age-out; glibc's malloc takes no lock and keeps no times until a process starts "
         "its first thread, and costs more than ours once it has"),
    "SVTimebaseGetTime, one timebase on the host clock":
        ("one clock_gettime(CLOCK_MONOTONIC)", "BM_clock_gettime",
         "reading the host clock is most of the call for ours and the peer alike"),
    "block buffer copy out, 1 MB of several pieces":
        ("1000 memcpy calls of one 1 KB piece each", "re:^BM_Floor_CopyPieceByPiece/(?!16384$)\\d+$",
         "the buffer holds 1000 pieces, end to end in memory, and copies them as one run; GstBuffer merges more "
         "than 16 memories into one when they are appended"),
    "block buffer copy out, 16 KB of several pieces":
        ("17 memcpy calls of 1 KB pieces", "BM_Floor_CopyPieceByPiece/16384",
         "the copy starts with a binary search for the first of the buffer's 1000 pieces; GstBuffer merges more "
         "than 16 memories into one when they are appended"),
    "block buffer copy out, 1 MB of pieces apart":
        ("1000 memcpy calls of one 1 KB piece each", "re:^BM_Floor_CopyPieceByPiece/(?!16384$)\\d+$",
         "pieces apart in memory are copied one by one; GstBuffer merges more than 16 memories into one when "
         "they are appended (a copy paid at append time), so its copy runs over a few large blocks"),
    "block buffer copy out, 16 KB of pieces apart":
        ("17 memcpy calls of 1 KB pieces", "BM_Floor_CopyPieceByPiece/16384",
         "pieces apart in memory are copied one by one, after a binary search for the first of 1000; "
         "GstBuffer merges more than 16 memories into one when they are appended"),
    "retain+release pair, uncontended":
        ("two atomic read-modify-writes, inlined", "BM_Floor_TwoAtomicRMW",
         "a count shared between threads needs two atomic operations; ours adds two calls across the library "
         "boundary"),
}


def run(command, **kwargs):
    return subprocess.run(command, check=True, **kwargs)


# ---- Google Benchmark --------------------------------------------------------

def run_program(path, out_path, repetitions, min_time):
    command = [path, f"--benchmark_repetitions={repetitions}", "--benchmark_enable_random_interleaving=true",
               "--benchmark_report_aggregates_only=false", "--benchmark_format=console",
               f"--benchmark_out={out_path}", "--benchmark_out_format=json"]
    if min_time:
        command.append(f"--benchmark_min_time={min_time}")
    print(f"=== {os.path.basename(path)}", flush=True)
    result = subprocess.run(command, stdout=subprocess.DEVNULL)
    if result.returncode != 0:
        print(f"bench-report: {path} failed (status {result.returncode}); its rows keep what it wrote",
              file=sys.stderr)


def load_runs(out_path):
    """run name -> list of per-repetition {time_ns, rate}."""
    try:
        with open(out_path) as f:
            data = json.load(f)
    except (OSError, ValueError):
        return {}
    runs = {}
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    for b in data.get("benchmarks", []):
        if b.get("run_type") != "iteration" or b.get("error_occurred"):
            continue
        name = b.get("run_name", b["name"])
        wall = name.endswith("/real_time") or name.endswith("/manual_time")
        time_ns = (b["real_time"] if wall else b["cpu_time"]) * scale[b.get("time_unit", "ns")]
        runs.setdefault(name, []).append({"time_ns": time_ns, "rate": b.get("items_per_second")})
    return runs


def find(runs, pattern):
    if pattern.startswith("re:"):
        regex = re.compile(pattern[3:])
        for name in sorted(runs):
            if regex.search(name):
                return name, runs[name]
        return None, None
    return (pattern, runs[pattern]) if pattern in runs else (None, None)


def summary(samples, metric):
    key = "rate" if metric == "rate" else "time_ns"
    values = [s[key] for s in samples if s[key]]
    if not values:
        return None, None
    return statistics.median(values), max(values) / min(values)


def fmt_figure(value, metric):
    if value is None:
        return "-"
    if metric == "rate":
        return f"{value / 1e6:.1f} M items/s"
    if value >= 1e6:
        return f"{value / 1e6:.2f} ms"
    if value >= 1e3:
        return f"{value / 1e3:.2f} us"
    return f"{value:.2f} ns"


def hot_path_rows(all_runs):
    rows = []
    for name, program, ours_pattern, peers, metric, goal in HOT_PATHS:
        runs = all_runs.get(program, {})
        ours_name, ours_samples = find(runs, ours_pattern)
        figure_metric = "rate" if metric == "rate" else "time"
        ours, ours_spread = summary(ours_samples, figure_metric) if ours_samples else (None, None)
        row = {"hot_path": name, "benchmark": ours_name or ours_pattern, "figure": ours,
               "unit": "items/s" if metric == "rate" else "ns", "spread": ours_spread, "goal": goal, "peers": []}
        if metric == "absolute":
            row["goal_kind"] = "at most this many ns"
            row["ratio"] = ours / goal if ours else None
        for label, pattern in peers:
            peer_name, peer_samples = find(runs, pattern)
            peer, peer_spread = summary(peer_samples, figure_metric) if peer_samples else (None, None)
            ratio = None
            if ours and peer:
                ratio = peer / ours if metric == "rate" else ours / peer
            row["peers"].append({"peer": label, "benchmark": peer_name or pattern, "figure": peer,
                                 "spread": peer_spread, "ratio": ratio})
        if metric != "absolute":
            ratios = [p["ratio"] for p in row["peers"] if p["ratio"] is not None]
            if metric == "best":
                row["goal_kind"] = "ours / best peer at most"
                row["ratio"] = max(ratios) if len(ratios) == len(row["peers"]) and ratios else None
                figures = [p["figure"] for p in row["peers"] if p["figure"]]
                if ours and figures:
                    row["ratio"] = ours / min(figures)
            else:
                row["goal_kind"] = "ours / peer at most, against every peer"
                row["ratio"] = max(ratios) if ratios else None
        limit = 1.0 if metric == "absolute" else goal
        row["met"] = None if row["ratio"] is None else row["ratio"] <= limit
        if name in FLOORS:
            label, pattern, why = FLOORS[name]
            floor_name, floor_samples = find(runs, pattern)
            floor, _ = summary(floor_samples, figure_metric) if floor_samples else (None, None)
            # In time: ours / floor; for throughput the floor's rate / ours.
            over = None
            if ours and floor:
                over = floor / ours if metric == "rate" else ours / floor
            row["floor"] = {"floor": label, "benchmark": floor_name or pattern, "figure": floor, "why": why,
                            "ours_over_floor": over}
        row["metric"] = metric
        rows.append(row)
    return rows


# ---- whole programs ------------------------------------------------------------

def make_input(path):
    if os.path.exists(path) and os.path.getsize(path) >= 50 * 1000 * 1000:
        return
    print(f"=== making {path} (1080p H.264, once)", flush=True)
    run(["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
         "testsrc2=size=1920x1080:rate=30", "-t", "60", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt",
         "yuv420p", "-b:v", "9M", "-minrate", "9M", "-maxrate", "9M", "-bufsize", "9M", "-g", "60",
         "-movflags", "+faststart", path + ".tmp.mp4"])
    os.replace(path + ".tmp.mp4", path)


def peak_rss_mib(command):
    result = subprocess.run(["/usr/bin/time", "-v"] + command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                            text=True, check=True)
    match = re.search(r"Maximum resident set size \(kbytes\): (\d+)", result.stderr)
    return int(match.group(1)) / 1024 if match else None


def hyperfine(commands, runs, json_path, prepare=None):
    options = ["--prepare", prepare] if prepare else []
    run(["hyperfine", "--style", "basic", "--warmup", "1", "--runs", str(runs), "--export-json", json_path] + options +
        commands, stdout=subprocess.DEVNULL)
    with open(json_path) as f:
        results = json.load(f)["results"]
    return [(r["median"], max(r["times"]) / min(r["times"])) for r in results]


def program_rows(build, bench_dir, runs):
    sorvel = os.path.join(build, "tools", "sorvel", "sorvel")
    demux_floor = os.path.join(build, "bench", "demux_floor")
    missing = [tool for tool in ("ffmpeg", "ffprobe", "hyperfine") if not shutil.which(tool)]
    missing += [path for path in (sorvel, demux_floor, "/usr/bin/time") if not os.path.exists(path)]
    if missing:
        print(f"bench-report: skipping whole-program rows, missing: {', '.join(missing)}", file=sys.stderr)
        return []
    media = os.path.join(bench_dir, "input-1080p.mp4")
    make_input(media)
    scratch = os.path.join(bench_dir, "scratch")
    os.makedirs(scratch, exist_ok=True)
    ours_out, peer_out = os.path.join(scratch, "sorvel.h264"), os.path.join(scratch, "ffmpeg.h264")
    floor_out = os.path.join(scratch, "floor.h264")
    # Every conversion writes a new file (the outputs are removed before each
    # run), as a user converting to a new name does; replacing a file is
    # timed on its own below, since sorvel then syncs the output first.
    prepare = f"rm -f {ours_out} {peer_out} {floor_out}"
    # The floors are what a tool built on libavformat pays before any work of
    # its own (bench/demux_floor.c).  A report of the streams analyses them,
    # as ffprobe does, then reads every packet.  A conversion needs no
    # analysis and can write on one core while it reads on the other; it
    # beats neither the reading alone, nor the writing alone, nor the two
    # overlapped with nothing converted (`copy`: the two copies through the
    # page cache then slow each other down).  Its floor is the largest of
    # the three.  The floors come first in each list, in that order.
    floors = {
        "annexb": [("libavformat reading every packet, no analysis (demux_floor scan)", [demux_floor, "scan", media]),
                   ("writing as many bytes to a new file (demux_floor write)",
                    [demux_floor, "write", media, floor_out]),
                   ("libavformat reading every packet while a second thread writes its bytes, unconverted, "
                    "to a new file (demux_floor copy)", [demux_floor, "copy", media, floor_out]),
                   ("sorvel startup (--version)", [sorvel, "--version"]),
                   ("ffmpeg startup (-version)", ["ffmpeg", "-version"])],
        "probe": [("libavformat analysing the streams and reading every packet (demux_floor read)",
                   [demux_floor, "read", media]),
                  ("sorvel startup (--version)", [sorvel, "--version"]),
                  ("ffprobe startup (-version)", ["ffprobe", "-version"])],
    }
    floor_count = {"annexb": 3, "probe": 1}
    pairs = [
        ("sorvel annexb vs ffmpeg -c:v copy -bsf:v h264_mp4toannexb", "annexb",
         [sorvel, "annexb", media, ours_out],
         ["ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-i", media, "-map", "0:v:0", "-c:v", "copy",
          "-bsf:v", "h264_mp4toannexb", "-f", "h264", peer_out]),
        ("sorvel probe --samples --json vs ffprobe -show_packets -of json", "probe",
         [sorvel, "probe", media, "--samples", "--json"],
         ["ffprobe", "-v", "error", "-show_packets", "-of", "json", media]),
    ]
    quote = lambda argv: " ".join(argv) + " > /dev/null"
    rows = []
    for name, kind, ours, peer in pairs:
        print(f"=== {name}", flush=True)
        extra = floors[kind]
        timed = hyperfine([quote(ours), quote(peer)] + [quote(command) for _, command in extra], runs,
                          os.path.join(scratch, "hyperfine.json"), prepare)
        (ours_time, ours_spread), (peer_time, peer_spread) = timed[0], timed[1]
        floor_rows = [{"what": label, "seconds": t} for (label, _), (t, _) in zip(extra, timed[2:])]
        if kind == "annexb":
            # Over an existing file: the output is synced before it replaces it.
            run([sorvel, "annexb", "-y", media, ours_out], stdout=subprocess.DEVNULL)
            (replace_time, _), = hyperfine([quote([sorvel, "annexb", "-y", media, ours_out])], runs,
                                           os.path.join(scratch, "hyperfine.json"))
            floor_rows.append({"what": "sorvel annexb -y over an existing file (synced before the rename)",
                               "seconds": replace_time})
        subprocess.run(prepare, shell=True, check=True)
        ours_rss, peer_rss = peak_rss_mib(ours), peak_rss_mib(peer)
        ratio = ours_time / peer_time
        floor_parts = floor_rows[:floor_count[kind]]
        floor_time = max(part["seconds"] for part in floor_parts)
        floor_what = "; ".join(part["what"] for part in floor_parts)
        rows.append({"program": name, "media": media, "media_bytes": os.path.getsize(media),
                     "figure_s": ours_time, "spread": ours_spread, "peer_s": peer_time, "peer_spread": peer_spread,
                     "ratio": ratio, "goal": 0.5, "peak_mib": ours_rss, "peer_peak_mib": peer_rss,
                     "met": ratio <= 0.5 and ours_rss is not None and peer_rss is not None and ours_rss <= peer_rss,
                     "floor": {"floor": f"the largest of: {floor_what}" if len(floor_parts) > 1 else floor_what,
                               "figure_s": floor_time,
                               "ours_over_floor": ours_time / floor_time,
                               "goal_below_floor": peer_time * 0.5 < floor_time},
                     "floors": floor_rows})
    return rows


# ---- the table -------------------------------------------------------------------

def verdict(met, row=None):
    if met is None:
        return "?"
    if met:
        return "met"
    floor = (row or {}).get("floor") or {}
    over = floor.get("ours_over_floor")
    if over is not None and over <= FLOOR_SLACK and floor.get("goal_below_floor", True):
        return f"at floor ({over:.2f}x)"
    return "NOT MET"


def floor_lines(rows):
    lines = []
    for r in rows:
        floor = r.get("floor")
        if not floor or r["met"] or floor.get("figure") is None:
            continue
        over = floor.get("ours_over_floor")
        unit = "rate" if r["metric"] == "rate" else "time"
        lines.append(f"- {r['hot_path']}: floor {fmt_figure(floor['figure'], unit)} ({floor['floor']}; "
                     f"{floor['benchmark']}), ours {'-' if over is None else f'{over:.2f}'}x of it. {floor['why']}.")
    return lines


def write_text(rows, program, path, settings):
    lines = [f"Sorvel benchmark report ({settings})", "",
             "ratio = ours / peer in time (peer / ours for throughput): below 1 is faster than the peer.",
             "spread = slowest / fastest repetition; a ratio within the spread of 1.0 is a draw on a noisy machine.",
             ""]
    header = (f"{'hot path':58} {'ours':>16} {'spread':>6} {'peer':28} {'peer figure':>16} {'spread':>6} "
              f"{'ratio':>7} {'goal':>6}  result")
    lines += [header, "-" * len(header)]
    for r in rows:
        unit = "rate" if r["metric"] == "rate" else "time"
        ours = f"{fmt_figure(r['figure'], unit)}"
        spread = lambda value: "-" if value is None else f"{value:.2f}"
        if r["metric"] == "absolute":
            ratio = "-" if r["ratio"] is None else f"{r['ratio']:.2f}"
            lines.append(f"{r['hot_path'][:58]:58} {ours:>16} {spread(r['spread']):>6} {'(none; goal in ns)':28} "
                         f"{fmt_figure(r['goal'], 'time'):>16} {'':>6} {ratio:>7} {'1.00':>6}  {verdict(r['met'], r)}")
            continue
        for i, p in enumerate(r["peers"]):
            ratio = "-" if p["ratio"] is None else f"{p['ratio']:.2f}"
            first = i == 0
            lines.append(f"{(r['hot_path'][:58] if first else ''):58} {(ours if first else ''):>16} "
                         f"{(spread(r['spread']) if first else ''):>6} {p['peer'][:28]:28}"
                         f" {fmt_figure(p['figure'], unit):>16} {spread(p['spread']):>6} {ratio:>7} {r['goal']:>6.2f}  "
                         f"{verdict(r['met'], r) if first else ''}")
    floors = floor_lines(rows)
    if floors:
        lines += ["", "Floors of the rows not met (measured in the same program; 'at floor' = within "
                  f"{FLOOR_SLACK:.2f}x of it):", ""] + floors
    if program:
        lines += ["", "Whole programs (hyperfine medians; peak RSS from /usr/bin/time -v; 'at floor' = within "
                  f"{FLOOR_SLACK:.2f}x of what bare libavformat programs pay before any work, bench/demux_floor.c):",
                  ""]
        for r in program:
            lines.append(f"{r['program']}: {r['figure_s']:.3f} s vs {r['peer_s']:.3f} s, ratio {r['ratio']:.2f} "
                         f"(goal 0.50), peak {r['peak_mib']:.0f} MiB vs {r['peer_peak_mib']:.0f} MiB  "
                         f"{verdict(r['met'], r)}")
            for f in r.get("floors", []):
                lines.append(f"    {f['what']}: {f['seconds']:.3f} s")
            floor = r.get("floor")
            if not r["met"] and floor:
                below = "below" if floor["goal_below_floor"] else "above"
                lines.append(f"    the goal asks for at most {r['peer_s'] * 0.5:.3f} s, {below} the floor of "
                             f"{floor['figure_s']:.3f} s ({floor['floor']}); ours is "
                             f"{floor['ours_over_floor']:.2f}x of the floor")
    text = "\n".join(lines) + "\n"
    with open(path, "w") as f:
        f.write(text)
    return text


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--min-time", default=os.environ.get("BENCH_MIN_TIME", ""))
    parser.add_argument("--runs", type=int, default=5, help="hyperfine runs per whole program")
    parser.add_argument("--skip-programs", action="store_true")
    parser.add_argument("--only-programs", action="store_true")
    parser.add_argument("--reuse", action="store_true",
                        help="take a benchmark program's results from an earlier run when they are there")
    args = parser.parse_args()

    bench_dir = os.path.join(args.build, "bench")
    raw_dir = os.path.join(bench_dir, "raw")
    os.makedirs(raw_dir, exist_ok=True)
    all_runs = {}
    previous_programs = []
    if args.only_programs and os.path.exists(os.path.join(bench_dir, "report.json")):
        with open(os.path.join(bench_dir, "report.json")) as f:
            previous_programs = json.load(f).get("hot_paths", [])
    if not args.only_programs:
        for program in sorted({row[1] for row in HOT_PATHS}):
            path = os.path.join(bench_dir, program)
            if not os.path.exists(path):
                print(f"bench-report: {path} is not built; its rows stay empty", file=sys.stderr)
                continue
            out_path = os.path.join(raw_dir, program + ".json")
            if not (args.reuse and load_runs(out_path)):
                run_program(path, out_path, args.repetitions, args.min_time)
            all_runs[program] = load_runs(out_path)
    rows = hot_path_rows(all_runs) if not args.only_programs else previous_programs
    program = [] if args.skip_programs else program_rows(args.build, bench_dir, args.runs)
    if args.skip_programs and os.path.exists(os.path.join(bench_dir, "report.json")):
        with open(os.path.join(bench_dir, "report.json")) as f:
            program = json.load(f).get("programs", [])

    settings = (f"medians of {args.repetitions} interleaved repetitions"
                + (f", min time {args.min_time}" if args.min_time else "") + f"; {os.cpu_count()} CPUs; "
                f"load average {os.getloadavg()[0]:.2f} at the end")
    report = {"settings": settings, "hot_paths": rows, "programs": program}
    with open(os.path.join(bench_dir, "report.json"), "w") as f:
        json.dump(report, f, indent=2)
    print(write_text(rows, program, os.path.join(bench_dir, "report.txt"), settings))
    print(f"written: {os.path.join(bench_dir, 'report.txt')} and {os.path.join(bench_dir, 'report.json')}")


if __name__ == "__main__":
    main()
