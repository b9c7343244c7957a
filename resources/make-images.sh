#!/usr/bin/env bash
# Renders the product emblem (a speech bubble shaped like an "O" on a blue disc) into the logo
# and the window icon. Needs ImageMagick; run it again after changing the drawing.
set -euo pipefail
cd "$(dirname "$0")"
convert=/usr/bin/convert
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Drawn at 512 pixels and scaled down, which smooths every edge.
"$convert" -size 512x512 gradient:'#35b6ea-#1a4fb5' -alpha set \
    \( -size 512x512 xc:none -fill white -draw 'circle 256,256 256,10' \) \
    -compose DstIn -composite \
    -compose Over -fill none -stroke white -strokewidth 58 \
    -draw 'circle 262,236 262,124' \
    -stroke none -fill white \
    -draw 'polygon 150,286 112,404 236,336' \
    "$work/emblem.png"

"$convert" "$work/emblem.png" -filter Lanczos -resize 48x48 -strip -depth 8 images/orlivo_logo.png
"$convert" "$work/emblem.png" -filter Lanczos \
    \( -clone 0 -resize 16x16 \) \( -clone 0 -resize 24x24 \) \( -clone 0 -resize 32x32 \) \
    \( -clone 0 -resize 48x48 \) \( -clone 0 -resize 64x64 \) \( -clone 0 -resize 256x256 \) \
    -delete 0 -strip -depth 8 images/application.ico
