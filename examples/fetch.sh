#!/bin/sh
# fetch.sh URL: the body of the answer on standard output. Exits with status 1 when the request fails.
# Shell variables hold no NUL bytes, so the body goes through a file.
set -eu

if [ $# -eq 0 ]; then
  echo 'usage: fetch URL' >&2
  exit 2
fi

url=$(printf '%s' "$1" | sed 's/|/%7C/g') # a bar would begin the next field
body=$(mktemp)
trap 'rm -f "$body"' EXIT

result=$(webreq -web "$url||||||$body")
case $result in
  2??) cat "$body" ;;
  *)
    echo "fetch: the result is $result" >&2
    exit 1
    ;;
esac
