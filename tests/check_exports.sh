#!/bin/sh
# Compares the dynamic symbols a shared library defines with the expected list
# (the markers AddressSanitizer adds to instrumented globals are not symbols of ours).
set -eu
lib=$1
expected=$2
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ && $3 !~ /^__odr_asan/ {print $3}' | sort -u > "$actual"
if ! diff -u "$expected" "$actual"; then
  echo "exported symbols differ from $expected (- expected, + exported)" >&2
  exit 1
fi
