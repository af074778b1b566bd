#!/usr/bin/env bash
# How fast spf-shm lists and judges segments next to lsipc -m, from one interleaved run in
# namespaces of its own: 2,000 POSIX objects and 1,000 System V segments, every round runs the
# three commands in a new random order, and the medians of their CPU times (user plus
# system, which the machine's other load disturbs less than wall time) give the ratios.
# Usage: bench/tool_scan.sh PATH/TO/spf-shm [ROUNDS]   (as root)
set -euo pipefail
if [ -z "${SPF_BENCH_NAMESPACE:-}" ]; then
    exec env SPF_BENCH_NAMESPACE=1 unshare --ipc --mount --pid --fork --mount-proc \
        sh -c 'mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$0" "$@"' "$0" "$@"
fi
exec /usr/bin/python3 - "$(realpath "$1")" "${2:-31}" <<'PYTHON'
import ctypes, os, random, resource, statistics, subprocess, sys
tool, rounds = sys.argv[1], int(sys.argv[2])
libc = ctypes.CDLL(None, use_errno=True)
for i in range(2000):
    fd = os.open(f"/dev/shm/bench-{i:04}", os.O_CREAT | os.O_RDWR, 0o600)
    os.ftruncate(fd, 4096 * (1 + i % 16))
    os.close(fd)
for i in range(1000):
    if libc.shmget(0x5f000000 + i, 4096 * (1 + i % 16), 0o1600) < 0:  # IPC_CREAT | 0600
        sys.exit(f"shmget: errno {ctypes.get_errno()}")
commands = {"lsipc -m": ["lsipc", "-m"], "spf-shm list": [tool, "list"],
            "spf-shm orphans": [tool, "orphans"]}
times = {name: [] for name in commands}
for _ in range(rounds):
    for name in random.sample(list(commands), len(commands)):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        subprocess.run(commands[name], stdout=subprocess.DEVNULL, check=True)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        times[name].append(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)
base = statistics.median(times["lsipc -m"])
print(f"{rounds} rounds, {os.cpu_count()} CPUs, load {os.getloadavg()[0]:.2f}")
for name, spent in times.items():
    median = statistics.median(spent)
    print(f"{name:16} {median * 1e3:7.1f} ms CPU  {median / base:5.2f}x lsipc -m")
PYTHON
