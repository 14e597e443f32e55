#!/usr/bin/env bash
# Renders the updater's tray and dialog icons from their SVG sources in
# ui-client/autoupdater/images/src into the theme directories next to it.
#
# The PNGs are committed, so this only needs running after an SVG changed.
# rsvg-convert does the drawing; ImageMagick then writes the file as PNG32
# (8-bit RGBA, colour type 6) even for the monochrome themes, which it would
# otherwise store as grey+alpha, and -strip drops the time-stamp chunks so that
# rendering the same SVG twice gives the same bytes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
images="$top/ui-client/autoupdater/images"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# theme directory, source, size in pixels
render() {
    local theme=$1 source=$2 size=$3
    mkdir -p "$images/$theme"
    rsvg-convert --width "$size" --height "$size" --format png \
        --output "$work/$theme.png" "$images/src/$source"
    convert "$work/$theme.png" -strip "PNG32:$images/$theme/icon_upgrade.png"
}

render normal icon_upgrade-colour.svg 72
render win-linux-black icon_upgrade-black.svg 64
render mac-black icon_upgrade-black.svg 72
render mac-white icon_upgrade-white.svg 72

for theme in normal win-linux-black mac-black mac-white; do
    identify -format "%d/%f: %wx%h %[channels] %[bit-depth]-bit, %b\n" \
        "$images/$theme/icon_upgrade.png"
done
