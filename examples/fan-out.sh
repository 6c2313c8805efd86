#!/usr/bin/env bash
# fan-out.sh URL [REQUESTS [PROCESSES]]: performs that many requests (1000), that many at a time (8), with "?n=1",
# "?n=2", … appended to the URL. Prints how often each result came and how long it all took.
# The bodies go into files: on one standard output they would get mixed up.
set -euo pipefail

[ $# -gt 0 ] || { echo "usage: fan-out.sh URL [REQUESTS [PROCESSES]]" >&2; exit 2; }
url=${1//|/%7C} requests=${2-1000} processes=${3-8}
folder=$(mktemp -d)
trap 'rm -r "$folder"' EXIT

SECONDS=0 # bash counts them
# shellcheck disable=SC2016 # the inner shell expands these
seq "$requests" |
  xargs -n 1 -P "$processes" sh -c 'exec webreq -web "$1|n=$3|||||$2/$3"' sh "$url" "$folder" | sort | uniq -c
echo "$requests requests in $SECONDS s"
