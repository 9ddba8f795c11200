# Sourced by the tests of the packages: a throw-away copy of this system's root, and a systemd booted in it. Needs root.
# Everything lives in a mount namespace of its own: call "in_namespace "$0" "$@"" first.

# Runs a script again in a private mount namespace, once.
in_namespace() {
    [ -n "${IN_NAMESPACE:-}" ] || IN_NAMESPACE=1 exec unshare --mount --propagation private "$@"
}

# Mounts an overlay of / at $1/root: what is written there is gone with the namespace.
overlay_root() {
    mount -t tmpfs tmpfs "$1"
    mkdir "$1/upper" "$1/work" "$1/root"
    mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"
    mount --rbind /dev "$1/root/dev"
    mount --rbind /sys "$1/root/sys"
    mount -t tmpfs tmpfs "$1/root/run"
    mount -t tmpfs tmpfs "$1/root/tmp"
    mount -t proc proc "$1/root/proc"
    rm -f "$1/root/usr/sbin/policy-rc.d"
}

# Runs a command with $1 as its root, in a mount namespace of its own. Not by chroot alone: who is in one can make no user
# namespace, which PrivateUsers= of a unit needs.
inside_root() {
    unshare --mount sh -c 'cd "$1" && shift && pivot_root . mnt && umount -l /mnt && exec chroot . "$@"' sh "$@"
}

# Boots the systemd of the root $1, with none of this system's own services, in namespaces and a control group of its
# own; SYSTEMD_PID is its process as seen from here. Fails where this machine does not let it run.
boot_systemd() {
    local root=$1 i
    rm -rf "$root"/etc/systemd/system/*.wants "$root/etc/systemd/system/default.target"
    CGROUP=$(findmnt -n -l -t cgroup2 -o TARGET | head -n 1)
    [ -n "$CGROUP" ] || return 1
    CGROUP+=/zent-test-$$
    mkdir "$CGROUP" || return 1
    sh -c 'echo $$ >"$2/cgroup.procs" &&
        exec unshare --mount --pid --net --ipc --uts --cgroup --fork --kill-child sh -c '\''
            cd "$1" || exit 1
            umount -l proc sys
            mount -t proc proc proc && mount -t sysfs -o ro sysfs sys && mount -t cgroup2 cgroup2 sys/fs/cgroup &&
                pivot_root . mnt && umount -l /mnt || exit 1
            exec chroot . env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin \
                /lib/systemd/systemd --system --log-target=null --show-status=no --unit=multi-user.target
        '\'' sh "$1"' sh "$root" "$CGROUP" >"$root/tmp/boot.log" 2>&1 &
    SYSTEMD_STARTER=$!
    for ((i = 0; i < 600; i++)); do
        SYSTEMD_PID=$(pgrep -P "$SYSTEMD_STARTER" | head -n 1)
        if [ -n "$SYSTEMD_PID" ] && [ -S "$root/run/systemd/private" ] && booted systemctl show >/dev/null 2>&1; then
            return 0
        fi
        kill -0 "$SYSTEMD_STARTER" 2>/dev/null || break
        sleep 0.1
    done
    halt_systemd
    return 1
}

# Ends it and whatever runs in it. Safe to call where nothing was booted.
halt_systemd() {
    if [ -n "${SYSTEMD_STARTER:-}" ]; then
        kill -KILL "$SYSTEMD_STARTER" 2>/dev/null || true
        wait "$SYSTEMD_STARTER" 2>/dev/null || true
        SYSTEMD_STARTER=
    fi
    if [ -n "${CGROUP:-}" ] && [ -d "$CGROUP" ]; then
        wait_for grep -q 'populated 0' "$CGROUP/cgroup.events"
        find "$CGROUP" -depth -type d -exec rmdir {} +
    fi
}

# A command inside the booted system.
booted() {
    nsenter -t "$SYSTEMD_PID" --mount --pid --net --ipc --uts --cgroup --root --wd "$@"
}

# Waits for a command to succeed, two minutes at most.
wait_for() {
    local i
    for ((i = 0; i < 600; i++)); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.2
    done
    echo "gave up waiting for: $*" >&2
    return 1
}
