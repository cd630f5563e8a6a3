#!/bin/sh
# Renders assets/report_logo.jpg, the default logo of the PDF reports: the
# "Corvane Live" wordmark with a heart glyph crossed by an ECG trace, 600x150
# on white. The PDF writer embeds the JPEG as it is, so it must stay a
# baseline (non-progressive) JPEG; metadata is stripped so that the bytes
# depend only on this script, ImageMagick and the font.
#
#   tools/gen_logo.sh            # writes assets/report_logo.jpg
#   tools/gen_logo.sh OUT.jpg    # writes elsewhere
# Needs ImageMagick's convert and the DejaVu fonts (Debian: imagemagick,
# fonts-dejavu-core).
set -eu

here=$(cd "$(dirname "$0")" && pwd)
out=${1:-"$here/../assets/report_logo.jpg"}
convert=${CONVERT:-convert}
font=${LOGO_FONT:-/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf}
[ -r "$font" ] || { echo "gen_logo.sh: font not found: $font" >&2; exit 1; }

ink='#17324d'    # "Corvane": deep blue-grey, prints well in black and white
accent='#1f8fa6' # "Live" and the heart: the teal of the pacer ball
size=58
text_x=142
baseline=97

# "Live" follows "Corvane " at the width the font itself gives that text.
word_w=$("$convert" -font "$font" -pointsize "$size" label:"Corvane " -format '%w' info:)
live_x=$((text_x + word_w))

# Heart in a 96x86 box, with one beat of an ECG trace across it.
"$convert" -size 600x150 xc:white \
  -fill "$accent" -stroke none \
  -draw "translate 24,31 path 'M 48,86 C 18,64 0,46 0,27 C 0,11 12,0 26,0 C 36,0 44,6 48,14 C 52,6 60,0 70,0 C 84,0 96,11 96,27 C 96,46 78,64 48,86 Z'" \
  -fill none -stroke white -strokewidth 4.5 \
  -draw "stroke-linejoin round stroke-linecap round translate 24,31 polyline 8,42 24,42 29,37 34,42 40,42 44,47 50,13 56,58 61,42 67,42 73,35 80,42 88,42" \
  -stroke none -font "$font" -pointsize "$size" \
  -fill "$ink" -annotate "+${text_x}+${baseline}" 'Corvane' \
  -fill "$accent" -annotate "+${live_x}+${baseline}" 'Live' \
  -colorspace sRGB -type TrueColor \
  -strip -interlace none -sampling-factor 1x1 -quality 92 \
  "jpeg:$out"
