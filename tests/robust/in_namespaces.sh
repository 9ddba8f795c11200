#!/bin/sh
# in_namespaces.sh COMMAND...: runs a script with links, mounts and processes of its own, as scripts/soak and scripts/faults
# do. Exit code 77: skipped.
set -eu
apart='unshare -n -m -p --fork --kill-child --mount-proc'
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: it needs root"
    exit 77
fi
if ! $apart ip link add one type veth peer name other; then
    echo "skipped: there are no namespaces, or no veth pairs"
    exit 77
fi
exec $apart "$@"
