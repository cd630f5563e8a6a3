#!/usr/bin/env bash
# Fails when a header or source includes a folder to its right in the layer
# order. The build already refuses such includes (each library sees only the
# folders to its left); this names every offender at once, in plain words.
#   base <- analysis <- sensor <- engine <- server <- app, reports beside engine
set -euo pipefail
cd "$(dirname "$0")/.."
declare -A allowed=(
  [base]="base"
  [analysis]="base analysis"
  [sensor]="base analysis sensor"
  [reports]="base analysis reports"
  [engine]="base analysis sensor reports engine"
  [assets]="base assets"
  [server]="base analysis sensor reports engine assets server"
  [app]="base analysis sensor reports engine assets server app"
)
layers="base analysis sensor reports engine assets server app"
status=0
for folder in $layers; do
  [ -d "$folder" ] || continue
  while IFS= read -r line; do
    file=${line%%:*}
    target=$(sed -E 's/.*#include "([a-z_]+)\/.*/\1/' <<<"$line")
    case " ${allowed[$folder]} " in
      *" $target "*) ;;
      *) case " $layers " in *" $target "*) echo "$file includes $target/ (above $folder/)"; status=1 ;; esac ;;
    esac
  done < <(grep -HnE '^#include "[a-z_]+/' "$folder"/*.h "$folder"/*.cc 2>/dev/null || true)
done
[ $status -eq 0 ] && echo "layers: every include points down"
exit $status
