#!/bin/sh
# Says hello, reports progress once, then hangs deaf to SIGTERM; notes its pid in $PIDS.
trap '' TERM
echo $$ >> "${PIDS:-/dev/null}"
echo '{"t":"hello","protocol":1,"program":"deaf 1"}'
[ "$1" = --version ] && exit 0
echo '{"t":"progress","percent":10}'
while :; do sleep 0.1; done
