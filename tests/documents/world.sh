# Words for the setups and conditions of commands.toml: what happens around a command of the documents.

# Runs a command in the other host's network, where 10.0.0.5 is.
there() { ip netns exec host "$@"; }

# The other host joins a group on its eth0 by IGMPv2, once more where it is a member already.
join() {
    there sysctl -qw net.ipv4.conf.eth0.force_igmp_version=2
    ip -n host addr del "$1/32" dev eth0 2>/dev/null || :
    ip -n host addr add "$1/32" dev eth0 autojoin
}

# Waits for a condition, a text; what runs it has a limit.
settle() {
    until eval "$1"; do
        sleep 0.1
    done
}

# Says lines to a receiver at 127.0.0.1:4554, as one process of an agent.
say() { printf '%s\n' "$@" | socat -u - UDP4-SENDTO:127.0.0.1:4554,sourceport=5000; }

# What a daemon that was killed has left.
no_daemon() { rm -f /var/log/zent/* /run/zent/*; }

# A zentmon with its page at the usual place, once it serves.
serve() {
    zentmon "$@" &
    settle 'curl -sf http://127.0.0.1:8580/healthz >/dev/null'
}
