#!/bin/sh
# What is joined where, of all zentmon that feed a broker: a line with instance, agent and group each.
#   all-groups.sh HOST [PORT [PREFIX]]
# The broker tells what it retains and then nothing: after two quiet seconds that was all.
set -eu
host=${1:?names the broker}
port=${2:-1883}
prefix=${3:-zent}
# QoS 0: of QoS 1 a broker may queue no more than a limit for a subscriber. 27: the time is over.
mosquitto_sub -h "$host" -p "$port" -q 0 -t "$prefix/+/+/+" --retained-only -F '%t' -W 2 || [ $? -eq 27 ]
