#!/bin/sh
# fetch.sh URL [SECONDS [HEADER ...]]: the body of the answer on standard output. A HEADER is a line, "Name: value".
# Exits with status 1 when the request fails or takes longer than SECONDS (30).
# Shell variables hold no NUL bytes, so the body goes through a file.
set -eu

fail() {
  echo "fetch: $1" >&2
  exit 1
}

if [ $# -eq 0 ]; then
  echo 'usage: fetch URL [SECONDS [HEADER ...]]' >&2
  exit 2
fi

url=$(printf '%s' "$1" | sed 's/|/%7C/g') # a bar would begin the next field
seconds=${2-30}
case $seconds in '' | 0* | *[!0-9]*) fail "SECONDS is a whole number from 1 on" ;; esac
shift
[ $# -eq 0 ] || shift
cr=$(printf '\r')
lf='
'
headers=
for header in "$@"; do
  case $header in *'|'* | *"$cr"* | *"$lf"*) fail "a header line can't hold a bar or a line break" ;; esac
  headers=$headers$header$cr
done
body=$(mktemp)
trap 'rm -f "$body"' EXIT

# A name server that doesn't answer can delay the result past TIMEOUT. On a Mac, timeout is in Homebrew's coreutils.
result=$(timeout "$seconds" webreq -web "$url|||$headers||$((seconds * 500))|$body") ||
  case $? in 124) fail "no answer within $seconds s" ;; *) fail "webreq gave no answer" ;; esac
case $result in
  2??) cat "$body" ;;
  *) fail "the result is $result" ;;
esac
