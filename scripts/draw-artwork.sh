#!/usr/bin/env bash
# Renders the station's drawings (data/artwork/*.svg, data/icons/quorvel.svg) into the
# bitmaps the program uses: button and logo PNGs compiled into the program, and the
# list backdrops the console loads from res/ beside the executable. The results are
# committed; run this after changing a drawing. Needs ImageMagick (apt-get install imagemagick).
set -euo pipefail
cd "$(dirname "$0")/.."
art=data/artwork
out=data/bitmaps
res=station-template/res
mkdir -p "$out" "$res"
render() {  # svg-text size target
  printf '%s' "$1" | convert -background none -density 96 svg:- -resize "$2" -strip "$3"
}
halo='fill="#d8efe5"'
for b in start stop settings help; do
  svg=$(cat "$art/button-$b.svg")
  render "$svg" 40x40 "$out/button-$b-out.png"
  render "${svg//fill=\"none\"\/>/$halo\/>}" 40x40 "$out/button-$b-in.png"
done
render "$(cat "$art/logo.svg")" 233x88 "$out/logo.png"
render "$(cat data/icons/quorvel.svg)" 64x64 "$out/quorvel-64.png"
declare -A backdrop
backdrop[userdata]=$(cat "$art/backdrop.svg")
backdrop[plain]=$(sed '/<!--userdata-->/,/<!--\/userdata-->/d' "$art/backdrop.svg")
for pair in "BRINDLE:plain" "BRINDLE_E:plain" "BRINDLE_USERDATA:userdata" "BRINDLE_USERDATA_E:userdata"; do
  name=${pair%%:*}
  variant=${pair#*:}
  printf '%s' "${backdrop[$variant]}" | convert -background "#f7fffc" -density 96 svg:- -flatten -type Palette "BMP3:$res/$name.bmp"
done
