#!/usr/bin/env bash
# record FILE: note what /dev/shm and the System V table hold now.
# check FILE: fail if anything is there now that was not then.
set -euo pipefail
snapshot() {
    ls -1 /dev/shm | sed 's/^/posix /'
    awk 'NR > 1 { print "sysv " $2 }' /proc/sysvipc/shm
}
case "$1" in
    record) snapshot | sort > "$2" ;;
    check)
        left=$(comm -13 "$2" <(snapshot | sort))
        if [ -n "$left" ]; then
            echo "the suite left these behind:"; echo "$left"; exit 1
        fi
        echo "nothing left behind" ;;
    *) echo "usage: $0 record|check FILE" >&2; exit 2 ;;
esac
