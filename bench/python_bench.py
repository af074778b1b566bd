#!/usr/bin/env python3
"""What does Python add to the library? Two questions, one interleaved run.

- Cycle: find a 4 KiB segment under its derived name, copy its bytes out into a new buffer, let
  it go; in Python (SharedMemory.find, memoryview(...).tobytes(), close) against the same cycle
  in C++ (spf_bench_cycles, a process of its own that this script drives through a pipe). Both
  back ends; the segments stay for the run, made by this script.
- Sum: numpy's sum over 64 MiB of float64 in a segment against the same sum over a private
  NumPy array with the same values: the view is the memory, so only the memory itself may differ.

Every case is calibrated to batches of about 10 ms; each round runs one batch of every case in
a new random order, and the ratios use the median CPU time per operation over the rounds.

Usage: python_bench.py PATH/TO/spf_bench_cycles [--rounds=N]
"""
import os
import random
import subprocess
import sys
import time

import numpy as np

from spf_sharedmemory import Backend, SharedMemory

SIZE = 4096
BIG = 64 << 20


def timed(work, count):
    cpu, wall = time.process_time_ns(), time.perf_counter_ns()
    work(count)
    return time.process_time_ns() - cpu, time.perf_counter_ns() - wall


def python_cycles(name, backend):
    def work(count):
        for _ in range(count):
            with SharedMemory.find(name, SIZE, "", backend) as segment, \
                    memoryview(segment) as view:
                view.tobytes()
    return lambda count: timed(work, count)


def cpp_cycles(peer, name, backend):
    def run(count):
        peer.stdin.write(f"{name} {int(backend)} {count}\n")
        peer.stdin.flush()
        cpu, wall = peer.stdout.readline().split()
        return int(cpu), int(wall)
    return run


def sums(array):
    return lambda count: timed(lambda n: [array.sum() for _ in range(n)], count)


def median(values):
    return sorted(values)[len(values) // 2]


def main():
    rounds = 40
    for argument in sys.argv[2:]:
        if argument.startswith("--rounds=") and int(argument[9:]) > 0:
            rounds = int(argument[9:])
        else:
            sys.exit("usage: python_bench.py PATH/TO/spf_bench_cycles [--rounds=N]")
    peer = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            text=True)
    tag = f"spfb{os.getpid()}"
    segments, made, arrays, cases = [], [], [], {}
    for backend in (Backend.POSIX, Backend.SYSV):
        label, name = backend.name.lower(), f"{tag}{backend.name}"
        made += [(name, backend), (f"{name}big", backend)]
        segments.append(SharedMemory.create(name, SIZE, "", backend))
        cases[f"{label} cycle C++"] = cpp_cycles(peer, name, backend)
        cases[f"{label} cycle Python"] = python_cycles(name, backend)
        segments.append(SharedMemory.create(f"{name}big", BIG, "", backend))
        arrays.append(np.frombuffer(segments[-1], np.float64))
        arrays[-1][:] = np.arange(arrays[-1].size) % 1000
        cases[f"{label} sum 64 MiB segment"] = sums(arrays[-1])
    arrays.append(arrays[0].copy())
    cases["sum 64 MiB private array"] = sums(arrays[-1])

    batch, cpu, wall = {}, {case: [] for case in cases}, {case: [] for case in cases}
    for case, run in cases.items():  # a first batch outside the measurement sets the size
        batch[case] = max(1, int(16 * 10e6 / run(16)[1]))
    order = list(cases)
    shuffle = random.Random(20261124).shuffle
    for _ in range(rounds):
        shuffle(order)
        for case in order:
            taken = cases[case](batch[case])
            cpu[case].append(taken[0] / batch[case])
            wall[case].append(taken[1] / batch[case])

    print(f"{'case (ns per operation)':36} {'cpu':>11} {'wall':>11} {'spread':>7}")
    for case in cases:
        ordered = sorted(cpu[case])
        middle = ordered[len(ordered) * 3 // 4] - ordered[len(ordered) // 4]
        print(f"{case:36} {median(cpu[case]):11.1f} {median(wall[case]):11.1f} "
              f"{100 * middle / median(cpu[case]):6.1f}%")
    print("\nratios of median CPU time per operation")
    met = True
    for a, b, target in [("posix cycle Python", "posix cycle C++", 3.0),
                         ("sysv cycle Python", "sysv cycle C++", 3.0),
                         ("posix sum 64 MiB segment", "sum 64 MiB private array", 1.1),
                         ("sysv sum 64 MiB segment", "sum 64 MiB private array", 1.1)]:
        value = median(cpu[a]) / median(cpu[b])
        met &= value <= target
        print(f"{a + ' / ' + b:58} {value:6.3f}   <= {target:.2f}  "
              f"{'met' if value <= target else 'MISSED'}")
    print(f"targets: {'all met' if met else 'not all met'}")

    peer.stdin.close()
    status = peer.wait()
    cases.clear()  # the sums hold the arrays, and the arrays hold buffers of the segments
    arrays.clear()
    for segment in segments:
        segment.close()
    # Closing removed what this process created; the outside view, by the names it derived:
    left = [name for name, backend in made
            if SharedMemory.find(name, SIZE, "", backend).is_attached]
    if left:
        print(f"python_bench: left behind: {left}", file=sys.stderr)
    return 1 if status != 0 or left else 0


if __name__ == "__main__":
    sys.exit(main())
