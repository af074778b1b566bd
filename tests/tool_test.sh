#!/usr/bin/env bash
# End-to-end run of the operator tool: every subcommand, both back ends, and the exit codes and
# messages of failures. Usage: tool_test.sh PATH/TO/spf-shm
set -uo pipefail
tool=$1
if [ "$(id -u)" -ne 0 ]; then
    echo "needs root to hand segments to groups staff and users"; exit 77
fi
name=spft-tool-$$
failures=0
out=$(mktemp) err=$(mktemp)
cleanup() {
    rm -f "/dev/shm/$name" "/dev/shm/$name-held" "$out" "$err"
    "$tool" remove --sysv --derive --trustee users "$name" >/dev/null 2>&1 || true
}
trap cleanup EXIT

fail() { echo "FAIL: $*"; echo "  stdout: $(cat "$out")"; echo "  stderr: $(cat "$err")"; failures=$((failures + 1)); }
# run EXPECTED_CODE ARGS...: runs the tool, keeps its stdout and stderr, checks the exit code.
run() {
    local expected=$1; shift
    "$tool" "$@" >"$out" 2>"$err"; local code=$?
    [ "$code" -eq "$expected" ] || fail "spf-shm $* exited $code, expected $expected"
}
has() { grep -qxF -- "$2" "$1" || fail "expected the line <$2> in $1 output"; }
stdout_has() { has "$out" "$1"; }
stderr_has() { has "$err" "$1"; }

# Usage: --help succeeds, anything malformed exits 2 with the usage text on stderr.
run 0 --help; grep -q '^usage: spf-shm' "$out" || fail "--help prints no usage"
run 2; grep -q '^usage: spf-shm' "$err" || fail "no arguments print no usage"
run 2 frobnicate; stderr_has "spf-shm: unknown command: frobnicate"
run 2 create "$name"; stderr_has "spf-shm: wrong number of arguments for create"
run 2 create "$name" 4k; stderr_has "spf-shm: bad SIZE: 4k"
run 2 list --sysv; stderr_has "spf-shm: unknown option for list: --sysv"
run 2 show --trustee staff "$name"

# Names are the library's: the derived names every process computes.
run 0 name seg grp; stdout_has "a758e1b41c007852"
run 0 name buffer staff; stdout_has "7632a976b2830bcc"

# POSIX: a persistent segment for group staff outlives the tool and shows up everywhere.
run 0 create --trustee staff --persistent "$name" 4096
stdout_has "role: creator"; stdout_has "trustee: staff"; stdout_has "persistent: yes"
[ "$(stat -c '%a %G %s' "/dev/shm/$name" 2>/dev/null)" = "770 staff 4096" ] || fail "object not as created"
run 0 show "$name"
stdout_has "owner: root"; stdout_has "trustee: staff"; stdout_has "mode: 0770"; stdout_has "size: 4096"
run 0 list; grep -qE "^  $name +root +staff +0770 +4096\$" "$out" || fail "list lacks the object"
run 1 create "$name" 4096; stderr_has "spf-shm: the segment /$name exists already"
run 1 find --trustee users "$name" 4096; stderr_has "spf-shm: no segment /$name that trusts group users"
run 1 find --persistent "$name" 4096
stderr_has "spf-shm: log: makePersistent(): Cannot be called from a finder object"
stderr_has "spf-shm: API error: Making shared memory persistent is not available to finder processes"
run 0 remove "$name"; stdout_has "removed /$name (POSIX)"
[ -e "/dev/shm/$name" ] && fail "remove left the object"
run 1 remove "$name"; stderr_has "spf-shm: no POSIX segment /$name"

# A trustee that names no group: the library's record and exception, and nothing created.
run 1 create --trustee no-such-group-spft "$name" 4096
stderr_has "spf-shm: log: setTrustee(): Failed to find the specified group: <no-such-group-spft>. (Error -1)"
stderr_has "spf-shm: SystemError:SharedMemory:getgrnam:trustee=no-such-group-spft:error= -1"
[ -e "/dev/shm/$name" ] && fail "a failed create left the object"

# System V under the derived name.
derived=$("$tool" name "$name" users)
run 0 create --sysv --derive --trustee users --persistent "$name" 8192; stdout_has "segment: /$derived (System V)"
run 0 show --sysv --derive --trustee users "$name"
stdout_has "trustee: users"; stdout_has "mode: 0770"; stdout_has "size: 8192"
run 0 list; grep -qE "^  0x[0-9a-f]{8} +[0-9]+ +root +users +0770 +8192 +0\$" "$out" || fail "list lacks the segment"
run 0 remove --sysv --derive --trustee users "$name"; stdout_has "removed /$derived (System V)"
run 1 show --sysv --derive --trustee users "$name"; stderr_has "spf-shm: no System V segment /$derived"

# --hold keeps the segment for others until a signal ends the wait; the teardown still runs.
"$tool" create-or-find "$name-held" 4096 --hold 30 >/dev/null 2>&1 & holder=$!
for _ in $(seq 100); do [ -e "/dev/shm/$name-held" ] && break; sleep 0.05; done
run 0 create-or-find "$name-held" 4096; stdout_has "role: finder"
kill -TERM "$holder"; wait "$holder"; code=$?
[ "$code" -eq 0 ] || fail "the holder exited $code after SIGTERM"
[ -e "/dev/shm/$name-held" ] && fail "the holder left its segment"

[ "$failures" -eq 0 ] && echo "all tool checks passed"
exit $((failures > 0))
