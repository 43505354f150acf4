#!/bin/sh
# Speaks a later protocol than the station.
echo '{"t":"hello","protocol":2,"program":"old 0.9"}'
