#!/bin/sh
# promtool on the alert rules: rules_test.sh RULES TESTS. Exit code 77: skipped.
set -eu
if ! command -v promtool >/dev/null; then
    echo "skipped: promtool (package prometheus) is not installed"
    exit 77
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp "$1" "$2" "$folder"
cd "$folder"
promtool check rules "$(basename "$1")"
promtool test rules "$(basename "$2")"
