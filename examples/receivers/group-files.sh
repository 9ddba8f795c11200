#!/bin/sh
# A program for zentmon --exec: keeps a file for each joined group in a directory, GROUP@AGENT, with the time of
# the join and the agent's address in it. Whoever wants to know whether a group is wanted looks for its file.
#   GROUP_FILES=/run/groups zentmon --exec /usr/local/bin/group-files.sh
# Events of one group come one after another, so that the last one decides.
set -eu
file=${GROUP_FILES:?names the directory}/$ZENT_GROUP@$ZENT_AGENT
case $ZENT_EVENT in
join) printf '%s %s\n' "$ZENT_TIME" "$ZENT_ADDRESS" >"$file" ;;
leave | expire) rm -f "$file" ;;
esac
