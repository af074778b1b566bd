#!/usr/bin/env bash
# Operator scenarios for spf-shm against the real kernel. Usage: tool_test.sh PATH/TO/spf-shm
set -uo pipefail
tool=$1
if [ "$(id -u)" -ne 0 ]; then
    echo "needs root to look as user nobody and to remove other users' segments"; exit 77
fi
# Whether a segment is an orphan depends on every process of the host, and root may still be
# refused some of them (a sandbox's init), which honestly makes the answer "unknown". So the
# scenarios run in PID, IPC and mount namespaces of their own, where every process is ours.
if [ -z "${SPFT_TOOL_NAMESPACE:-}" ]; then
    exec env SPFT_TOOL_NAMESPACE=1 unshare --ipc --mount --pid --fork --mount-proc \
        sh -c 'mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$0" "$@"' "$0" "$@"
fi
n=spft-tool-$$
failures=0 out=$(mktemp) err=$(mktemp) held=$(mktemp)
cleanup() {
    for s in keep dead held; do "$tool" remove --sysv "$n-$s" >/dev/null 2>&1; done
    rm -rf /dev/shm/"$n"-* "$out" "$err" "$held"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "  stdout: $(cat "$out")"; echo "  stderr: $(cat "$err")"; failures=$((failures + 1)); }
# run EXPECTED_CODE ARGS...: runs the tool, keeps its stdout and stderr, checks the exit code.
run() {
    local expected=$1; shift
    "$tool" "$@" >"$out" 2>"$err"; local code=$?
    [ "$code" -eq "$expected" ] || fail "spf-shm $* exited $code, expected $expected"
}
has() { grep -qE -- "$2" "$1" || fail "no line matching <$2> in $(basename "$1")"; }
lacks() { ! grep -qE -- "$2" "$1" || fail "a line matching <$2> in $(basename "$1")"; }
waitfor() { for _ in $(seq 200); do grep -q holding "$1" && return; sleep 0.05; done; fail "no holder in $1"; }
key() { "$tool" show --sysv "$1" 2>/dev/null | sed -n 's/^key: //p'; }

# Strict usage: exit 2 with the usage line; "--" ends the options.
for args in "" frobnicate "list -x" "list --sysv --posix" "show" "show a b" "create $n 4k" \
    "create a/b 4096" "show --trustee staff x" "show --key 0x123456789 " "prune --older-than 5q" \
    "name --sysv" "create $n"; do
    run 2 $args; has "$err" "^usage: spf-shm COMMAND"
done
run 0 --help; has "$out" "^  prune "
run 1 show -- -x; has "$err" "no POSIX object /-x"
run 0 name seg grp; has "$out" "^a758e1b41c007852$"
run 0 name --sysv seg grp; has "$out" "^0x[0-9a-f]{8}$"

# Looking changes nothing, needs no write access, and lists regular files only.
: > "/dev/shm/$n-empty"; chmod 600 "/dev/shm/$n-empty"
mkdir "/dev/shm/$n-dir"; ln -s "$n-empty" "/dev/shm/$n-link"
run 0 show "$n-empty"; has "$out" "^size: 0$"
run 0 list; has "$out" "^posix +/$n-empty +- +root +root +0600 +0 "; lacks "$out" "$n-(dir|link)"
setpriv --reuid=65534 --regid=65534 --clear-groups "$tool" show "/$n-empty" >"$out" 2>"$err" || fail "nobody cannot show"
has "$out" "^owner: root$"
[ "$(stat -c %s "/dev/shm/$n-empty")" = 0 ] || fail "looking sized the empty object"
rm -rf "/dev/shm/$n-empty" "/dev/shm/$n-dir" "/dev/shm/$n-link"

# Both back ends: a size mismatch names both sizes; the kernel's view of a persistent segment.
for b in --posix --sysv; do
    o=${b/--posix/}
    run 0 create $o --trustee staff --persistent "/$n-keep" 4096; has "$out" "^segment: /$n-keep "
    run 1 create $o "$n-keep" 4096; has "$err" "the segment /$n-keep exists already"
    run 1 create $o --trustee no-such-group-spft "$n-none" 4096; run 1 show $o "$n-none"
    run 1 find $o "$n-keep" 8192; has "$err" "size mismatch: /$n-keep has 4096 bytes, 8192 were asked for"
    run 0 show $o "$n-keep"; has "$out" "^mode: 0770$"; has "$out" "^trustee: staff$"; has "$out" "^state: (orphan|unknown)$"
    run 0 list $b --json
    python3 -c 'import json, sys
rows = json.load(open(sys.argv[1]))
keep = [r for r in rows if r["name"] == "/" + sys.argv[2] or r["key"] == sys.argv[3]]
assert len(keep) == 1 and keep[0]["size"] == 4096 and keep[0]["group"] == "staff", keep
assert all(sorted(r) == sorted(rows[0]) for r in rows)' "$out" "$n-keep" "$(key "$n-keep")" || fail "list $b --json"
    # In use: a System V finder attached, a process that mapped the object and closed it.
    if [ -n "$o" ]; then "$tool" find --sysv "$n-keep" 4096 --hold 60 >"$held" 2>&1 & user=$!
    else python3 -c 'import mmap, os, sys, time
fd = os.open(sys.argv[1], os.O_RDWR); m = mmap.mmap(fd, 0); os.closerange(3, 1024)
print("holding", flush=True); time.sleep(60)' "/dev/shm/$n-keep" >"$held" & user=$!; fi
    waitfor "$held"
    run 0 show $o "$n-keep"; has "$out" "^state: in-use$"
    run 0 remove $o "$n-keep"; has "$out" "^removed "
    if [ -n "$o" ]; then
        has "$out" "when its 1 remaining users detach"; run 0 list --sysv; has "$out" " 0770 .* 1 +removing "
    fi
    kill "$user"; wait "$user" 2>/dev/null
done

# A System V segment the library did not make: addressed by id and by key.
id=$(ipcmk -M 1000 | awk '{ print $NF }')
run 0 show --id "$id"; has "$out" "^size: 1000$"; has "$out" "^last pid: 0$"
run 0 remove --key "$(sed -n 's/^key: //p' "$out")"; has "$out" "^removed 0x"
run 1 show --id "$id"

# Crashed creators leave orphans; orphans and prune find exactly them, never a segment in use.
for b in --posix --sysv; do
    o=${b/--posix/}
    "$tool" create-or-find $o "$n-held" 4096 --hold 60 >"$held" 2>&1 & holder=$!
    "$tool" create $o "$n-dead" 4096 --hold 60 >"$out" 2>&1 & victim=$!
    waitfor "$held"; waitfor "$out"
    kill -KILL "$victim"; wait "$victim" 2>/dev/null
    if [ -n "$o" ]; then dead=$(key "$n-dead") live=$(key "$n-held"); else dead=/$n-dead live=/$n-held; fi
    run 0 orphans $b --bytes --sees-all; has "$out" "^${b#--} +$dead .* 4096 +0 +orphan "; lacks "$out" "$live"
    run 0 list $b; has "$out" "^${b#--} +$live .* in-use "
    run 0 prune $b --name "$n-dead" --sees-all; has "$out" "$dead"; has "$err" "1 orphan\(s\) would be removed"
    run 0 show $o "$n-dead"
    run 0 prune $b --yes --name "$n-held"; lacks "$out" "removed"
    run 0 prune $b --yes --name "$n-dead" --sees-all; has "$out" "^removed $dead"
    run 1 show $o "$n-dead"
    run 0 create-or-find $o "$n-dead" 4096; has "$out" "^role: creator$"
    # An interrupted creator still cleans up.
    kill -TERM "$holder"; wait "$holder" || fail "the holder exited $? after SIGTERM"
    run 1 show $o "$n-held"
done

[ "$failures" -eq 0 ] && echo "all tool checks passed"
exit $((failures > 0))
