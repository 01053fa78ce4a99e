#!/bin/sh
# Compares the dynamic symbols a shared library defines with the expected list.
set -eu
lib=$1
expected=$2
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
# Sanitizer builds add __odr_asan.* markers next to exported globals; they are not interface.
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ && $3 !~ /^__odr_asan[.]/ {print $3}' | sort -u > "$actual"
if ! diff -u "$expected" "$actual"; then
  echo "exported symbols differ from $expected (- expected, + exported)" >&2
  exit 1
fi
