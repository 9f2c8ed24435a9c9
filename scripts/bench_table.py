#!/usr/bin/env python3
"""Prints the table of scripts/bench from the JSON files of one run."""
import json
import os
import sys


def load(directory, program):
    path = os.path.join(directory, program + ".json")
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return json.load(f)["benchmarks"]


def find(rows, name):
    for row in rows:
        if row["name"] == name or row.get("run_name") == name:
            return row
    return None


def ms(row, key):
    factor = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[row.get("time_unit", "ns")]
    return row[key] * factor


def line(label, value):
    print(f"  {label:<44} {value}")


def main():
    directory = sys.argv[1]
    snapshot = load(directory, "bench_snapshot")
    cachefile = load(directory, "bench_cachefile")
    agent = load(directory, "bench_agent")
    platform = load(directory, "bench_platform")
    fihost = load(directory, "bench_fihost")

    print("Entry points: CPU per call inside a two-volume lifecycle (virtual clock)")
    cost = find(snapshot, "BM_EntryPointCost")
    if cost:
        for step in ["interpose", "initNode", "config", "select", "prepare", "quiesce", "make",
                     "unquiesce", "isReady", "initAltNode", "dispose", "deInitNode"]:
            key = step + "_us"
            if key in cost:
                line(step, f"{cost[key]:10.1f} us")

    print("Lifecycle: interpose .. deInitNode, with a real kivagent")
    print(f"  {'volumes':<10}{'CPU, virtual clock':>22}{'mandated waits':>18}{'wall, real waits':>20}")
    for volumes in (1, 8, 64):
        virtual = find(snapshot, f"BM_SnapshotVirtualClock/{volumes}")
        real = find(snapshot, f"BM_SnapshotRealClock/{volumes}/iterations:1/real_time")
        cpu = f"{ms(virtual, 'cpu_time'):.1f} ms" if virtual else "-"
        waits = f"{virtual['mandatedWaitMs'] / 1000:.0f} s" if virtual else "-"
        wall = f"{ms(real, 'real_time') / 1000:.1f} s" if real else "-"
        print(f"  {volumes:<10}{cpu:>22}{waits:>18}{wall:>20}")

    print("Cache placement (nothing preferred: every volume examined), CPU per placement")
    print(f"  {'volumes':<10}{'1 target':>14}{'8 targets':>14}{'64 targets':>14}")
    for volumes in (10, 100, 1000):
        cells = []
        for targets in (1, 8, 64):
            row = find(cachefile, f"BM_PlaceCacheFiles/volumes:{volumes}/targets:{targets}")
            cells.append(f"{ms(row, 'cpu_time'):.3f} ms" if row else "-")
        print(f"  {volumes:<10}" + "".join(f"{cell:>14}" for cell in cells))

    print("Backup agent: register + retrieve + release, a connection each")
    for threads in (1, 8):
        row = find(agent, f"BM_AgentExchange/real_time/threads:{threads}")
        if row:
            line(f"{threads} client thread(s)",
                 f"{row['items_per_second']:10.0f} exchanges/s  busy {row.get('busy', 0):.0f}"
                 f"  failed {row.get('failed', 0):.0f}")

    print("Machine layer, per volume")
    for name in ("BM_EnumerateVolumes", "BM_EnumerateMountPoints", "BM_FreeSpace"):
        cells = []
        for volumes in (10, 100, 1000):
            row = find(platform, f"{name}/{volumes}")
            cells.append(f"{row['per_volume'] * 1e9:.0f} ns" if row else "-")
        line(name[3:] + " (10/100/1000)", " / ".join(cells))

    print("fihost volumes as a process (wall)")
    for volumes in (10, 1000):
        row = find(fihost, f"BM_FihostVolumes/volumes:{volumes}/iterations:5/real_time")
        if row:
            line(f"{volumes} volumes", f"{ms(row, 'real_time'):10.1f} ms")


if __name__ == "__main__":
    main()
