#!/bin/sh
# Names the phone twice in its job, and with "late" once more after its result.
echo '{"t":"hello","protocol":1,"program":"device 1"}'
[ "$1" = --version ] && exit 0
echo '{"t":"progress","percent":10}'
sleep 0.3
echo '{"t":"device","serial":"A1"}'
case "$*" in *late*) ;; *) echo '{"t":"device","imei":"356938035643809"}' ;; esac
echo '{"t":"result","ok":true}'
case "$*" in *late*) echo '{"t":"device","chip":"X"}' ;; esac
