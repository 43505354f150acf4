#!/bin/sh
# Says hello, then a line that is no JSON.
echo '{"t":"hello","protocol":1,"program":"g"}'
echo '{"t":'
