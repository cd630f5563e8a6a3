#!/bin/bash
# Test code against product code, in non-blank lines, and their ratio.
#
#   tools/test_ratio.sh            totals and the ratio
#   tools/test_ratio.sh -v         also one line per folder
#
# What counts:
#   test code     tests/**/*.{cc,h,py,mjs,sh}, plus the tools whose only purpose is to
#                 make test data (tools/make_*golden*.py, tools/make_*reference*.py): they
#                 are independent references the tests compare against, not part of the
#                 program; and the checks kept in tools/ (wine_smoke.sh, check_layers.sh). Left out: tests/**/golden/ (generated vectors and recordings),
#                 node_modules/, package*.json.
#   product code  base/ analysis/ sensor/ engine/ reports/ server/ app/ assets/ web/ and the
#                 remaining tools/, files *.{cc,h,js,html,css,py,sh}: everything that ships
#                 in the program or builds its assets.
#   neither       bench/ (measures, asserts nothing), CMake files, docs, data files.
# A folder that does not exist counts as empty. The target is a ratio of at most 0.40.
set -euo pipefail

cd "$(dirname "$0")/.."

verbose=0
[[ "${1:-}" == "-v" ]] && verbose=1

# Non-blank lines of the files given on standard input, one path per line.
count_lines() {
  local total=0 n file
  while IFS= read -r file; do
    n=$(grep -c '[^[:space:]]' "$file" || true)
    total=$((total + n))
  done
  echo "$total"
}

is_test_tool() {
  [[ "$1" == tools/make_*golden*.py || "$1" == tools/make_*reference*.py ||
     "$1" == tools/wine_smoke.sh || "$1" == tools/check_layers.sh ]]
}

test_files() {
  find tests -type d \( -name golden -o -name node_modules \) -prune -o -type f \
    \( -name '*.cc' -o -name '*.h' -o -name '*.py' -o -name '*.mjs' -o -name '*.sh' \) -print
  local f
  for f in tools/*.py tools/*.sh; do
    if [[ -e "$f" ]] && is_test_tool "$f"; then echo "$f"; fi
  done
}

product_files() {
  local dir f
  for dir in base analysis sensor engine reports server app assets web tools; do
    [[ -d "$dir" ]] || continue
    find "$dir" -type d -name node_modules -prune -o -type f \
      \( -name '*.cc' -o -name '*.h' -o -name '*.js' -o -name '*.html' -o -name '*.css' \
      -o -name '*.py' -o -name '*.sh' \) -print |
      while IFS= read -r f; do
        is_test_tool "$f" || echo "$f"
      done
  done
}

if ((verbose)); then
  echo "test code by folder:"
  test_files | sed 's|/[^/]*$||' | sort | uniq | while IFS= read -r d; do
    printf '  %-24s %6d\n' "$d" "$(test_files | grep "^$d/[^/]*$" | count_lines)"
  done
  echo "product code by folder:"
  product_files | cut -d/ -f1 | sort -u | while IFS= read -r d; do
    printf '  %-24s %6d\n' "$d" "$(product_files | grep "^$d/" | count_lines)"
  done
fi

tests=$(test_files | count_lines)
product=$(product_files | count_lines)
echo "test code:    $tests lines"
echo "product code: $product lines"
awk -v t="$tests" -v p="$product" 'BEGIN { printf "ratio:        %.3f\n", p ? t / p : 0 }'
