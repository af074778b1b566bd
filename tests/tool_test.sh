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
    "name --sysv" "create $n" "list --key 1 -k 2" "list -o NAME,NOPE" "list -J -r" "show --name-hex 2"; do
    run 2 $args; has "$err" "^usage: spf-shm COMMAND"
done
run 0 --help; has "$out" "^  prune "
run 2 name ''; has "$err" "an empty segment name"
run 1 show --key 3010621757; has "$err" "no System V segment with key 0xb372713d"
run 1 show -- -x; has "$err" "no POSIX object /-x"
run 0 name seg grp; has "$out" "^a758e1b41c007852$"
run 0 name --sysv seg grp; has "$out" "^0x[0-9a-f]{8}$"

# Looking changes nothing, needs no write access, and lists regular files only.
: > "/dev/shm/$n-empty"; chmod 600 "/dev/shm/$n-empty"
mkdir "/dev/shm/$n-dir"; ln -s "$n-empty" "/dev/shm/$n-link"
run 0 show "$n-empty"; has "$out" "^size: 0$"
run 0 list; has "$out" "^posix +/$n-empty +- +root +root +0600 +0B +0B "; lacks "$out" "$n-(dir|link)"
setpriv --reuid=65534 --regid=65534 --clear-groups "$tool" show "/$n-empty" >"$out" 2>"$err" || fail "nobody cannot show"
has "$out" "^owner: root$"
[ "$(stat -c %s "/dev/shm/$n-empty")" = 0 ] || fail "looking sized the empty object"
rm -rf "/dev/shm/$n-empty" "/dev/shm/$n-dir" "/dev/shm/$n-link"

# Output: a hostile name comes out escaped everywhere and round-trips through name_hex; columns,
# sizes as lsipc prints them, strict JSON, the space warning and the monitor's exit status.
bad=$(printf '%s-\033]0;pwned\007\302\233\377\376\nx' "$n") esc='\\x1b\]0;pwned\\x07\\xc2\\x9b\\xff\\xfe\\x0ax'
printf x > "/dev/shm/$bad"; truncate -s 10239 "/dev/shm/$n-10k"; truncate -s 1048575 "/dev/shm/$n-1m"
safe() { ! LC_ALL=C grep -qP '[\x00-\x09\x0b-\x1f\x7f-\xff]' "$1" || fail "raw bytes in $(basename "$1")"; }
run 0 --json list --posix -o NAME,NAME_HEX,SIZE,alloc
hex=$(/usr/bin/python3 -c 'import json, sys
rows = json.loads(open(sys.argv[1], "rb").read().decode())["segments"]
assert all(sorted(r) == ["allocated", "name", "name_hex", "size"] for r in rows), rows
bad = [r for r in rows if "pwned" in r["name"]]
assert len(bad) == 1 and bad[0]["size"] == 1 and bad[0]["allocated"] == 4096, bad
print(bad[0]["name_hex"])' "$out") || fail "list --json"
[ "$(printf '%s' "/$bad" | od -An -tx1 | tr -d ' \n')" = "$hex" ] || fail "name_hex is $hex"
for args in "list" "list -r -o NAME" "show --name-hex $hex"; do
    run 0 $args; has "$out" "/$n-$esc( |$)"; safe "$out"; safe "$err"
done
run 0 list -n -r -o NAME,size,ALLOC --name "$n-1*"; has "$out" "^/$n-10k 10K 0B$"; has "$out" "^/$n-1m 1024K 0B$"
run 0 list -nrb -o SIZE --name "$n-10k"; has "$out" "^10239$"
run 0 list -o +CPID,COMMAND; has "$out" " ALLOC +USERS +STATE +AGE +CPID +COMMAND$"
run 3 orphans --check --sees-all --posix --name "$n-*"
run 0 remove --name-hex "$hex"; has "$out" "^removed /$n-$esc \(POSIX\)$"; safe "$out"
rm "/dev/shm/$n-10k" "/dev/shm/$n-1m"; run 0 orphans --check --sees-all --posix --name "$n-*"
unshare --mount sh -c 'mount -t tmpfs -o size=64k tmpfs /dev/shm && truncate -s 1M /dev/shm/x && "$0" list' "$tool" >"$out" 2>"$err"
has "$out" "^posix +/x .* 1M +0B "; has "$err" "these segments can fault their users"
unshare --mount sh -c 'mount -t tmpfs -o size=64k tmpfs /dev/shm && ! "$0" create -p --reserve big 1048576 2>&1 && "$0" create -p --reserve x 16384 >/dev/null && "$0" list -nrb -o NAME,ALLOC' "$tool" >"$out" 2>"$err"
has "$out" "reserve:posix_fallocate/big:error=28$"; has "$out" "^/x 16384$"; lacks "$out" "^/big"

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
rows = json.load(open(sys.argv[1]))["segments"]
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
    run 0 orphans $b --bytes --sees-all; has "$out" "^${b#--} +$dead .* 4096 +0 +0 +orphan "; lacks "$out" "$live"
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

# Nothing in use is removed where the tool cannot see every process: without /proc, and in a
# PID namespace of its own that shares /dev/shm, a mapped object without descriptors is kept.
noproc() { unshare --mount sh -c 'mount -t tmpfs none /proc && exec "$0" "$@"' "$@"; }
childns() { unshare --pid --fork --mount-proc "$@"; }
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
# runin EXPECTED_CODE WRAPPER ARGS...: as run, with the tool started through WRAPPER.
runin() {
    local expected=$1 wrap=$2; shift 2
    "$wrap" "$tool" "$@" >"$out" 2>"$err"; local code=$?
    [ "$code" -eq "$expected" ] || fail "$wrap spf-shm $* exited $code, expected $expected"
}
# mapper OBJECT [wait] &: maps OBJECT and closes its descriptor; with wait, only after SIGUSR1.
mapper() { exec python3 -c 'import mmap, os, signal, sys, time
if sys.argv[2:]: signal.signal(signal.SIGUSR1, lambda *_: None); print("holding", flush=True); signal.pause()
fd = os.open(sys.argv[1], os.O_RDWR); m = mmap.mmap(fd, 0); os.close(fd)
print("holding", flush=True); time.sleep(60)' "$@"; }
run 0 create --persistent "$n-live" 4096
mapper "/dev/shm/$n-live" >"$held" & user=$!; waitfor "$held"
# The sanitizers need /proc themselves and no tracer: their builds skip the cases without /proc
# and look for no leaks under strace.
cases=("childns:not in the initial PID namespace") noproc=noproc
if grep -qa __asan_init "$tool"; then echo "skipped the cases without /proc: a sanitizer build"; noproc=
else cases+=("noproc:no proc file system on /proc"); fi
for case in "${cases[@]}"; do
    runin 0 "${case%%:*}" prune --yes --posix; lacks "$out" "removed"
    has "$err" "^spf-shm: cannot see every process \(${case#*:}\): POSIX objects"
    runin 0 "${case%%:*}" show "$n-live"; has "$out" "^state: unknown$"
done
runin 0 childns show --sees-all "$n-live"; has "$out" "^state: orphan$"
run 0 show "$n-live"; has "$out" "^state: in-use$"
kill "$user"; wait "$user" 2>/dev/null
# Prune looks at the users again just before each removal: an object mapped while strace holds
# up that second look is kept.
if command -v strace >/dev/null; then
    : >"$held"; mapper "/dev/shm/$n-live" wait >"$held" & user=$!; waitfor "$held"
    ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 strace -o "$out.trace" \
        -e trace=statfs -e inject=statfs:delay_enter=2000000:when=2 \
        "$tool" prune --yes --posix --sees-all --name "$n-live" >"$out" 2>"$err" & pruner=$!
    for _ in $(seq 200); do [ "$(grep -sc ^statfs "$out.trace")" = 2 ] && break; sleep 0.05; done
    kill -USR1 "$user"; wait "$pruner" || fail "a prune that kept an object exited $?"
    has "$err" "^spf-shm: kept /$n-live: it is in use now$"
    kill "$user"; wait "$user" 2>/dev/null; rm -f "$out.trace"
else echo "skipped the prune race: no strace"; fi
for args in ${noproc:+list "show --id 0"}; do
    runin 1 noproc $args; has "$err" "^spf-shm: cannot read /proc/sysvipc/shm \("
done

# A key must name one segment: key 0 is every private segment's.
python3 -c 'import ctypes; shmget = ctypes.CDLL(None).shmget; shmget(0, 64, 0o1600); shmget(0, 64, 0o1600)'
run 1 remove --key 0x0; has "$err" "^spf-shm: illegal key \(0\)"
run 0 show --key 0; [ "$(grep -c '^id: ' "$out")" = 2 ] || fail "remove --key 0 removed something"
ids=$(sed -n 's/^id: /-i /p' "$out"); run 1 remove -i 2147483647 $ids; has "$err" "with id 2147483647$"; run 1 show --key 0
# A refused removal fails the prune.
id=$(ipcmk -M 64 -p 600 | awk '{ print $NF }')
runin 1 nobody prune --sysv --yes; has "$err" "^spf-shm: kept 0x[0-9a-f]{8} \(id $id\): Permission denied"
run 0 remove --id "$id"
# The creator's pid, taken by a process started later, does not keep its segment idle.
childns sh -c 'ipcmk -M 64 >"$1"; sleep 2; echo 1 >/proc/sys/kernel/ns_last_pid; sleep 60 &
    exec "$0" show --id "$(awk "{ print \$NF }" "$1")"' "$tool" "$held" >"$out" 2>"$err"
has "$out" "^creator pid: 2$"; has "$out" "^state: orphan$"
run 0 remove --id "$(awk '{ print $NF }' "$held")"

# A closed terminal ends --hold as an interrupt does; a System V open says its key and id.
for o in "" --sysv; do
    "$tool" create $o "$n-hup" 4096 --hold 60 >"$held" 2>&1 & holder=$!
    waitfor "$held"; [ -z "$o" ] || has "$held" "^id: [0-9]+$"
    kill -HUP "$holder"; wait "$holder" || fail "the holder exited $? after SIGHUP"
    run 1 show $o "$n-hup"
done
# find opens only what its creator has sized.
: > "/dev/shm/$n-empty"
run 1 find "$n-empty" 4096; has "$err" "^spf-shm: /$n-empty has 0 bytes"
[ "$(stat -c %s "/dev/shm/$n-empty")" = 0 ] || fail "find sized an empty object"

[ "$failures" -eq 0 ] && echo "all tool checks passed"
exit $((failures > 0))
