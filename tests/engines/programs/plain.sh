#!/bin/sh
# A program that knows only jobs: its package operations are left to the station.
echo "usage: plain.sh PORT"
exit 2
