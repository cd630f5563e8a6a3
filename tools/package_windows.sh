#!/usr/bin/env bash
# Packs the Windows build into dist/CorvaneLive-<version>-win64.zip: both
# programs and the README for Windows users. Refuses programs that need a
# DLL a bare Windows lacks (the build links the GCC runtime statically).
# Usage: tools/package_windows.sh BUILD_DIR DIST_DIR
set -euo pipefail
build=$1
dist=$2
cd "$(dirname "$0")/.."

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || { echo "no project version in $build/CMakeCache.txt" >&2; exit 1; }

# What every Windows 10 has in System32.
system_dlls='^(kernel32|msvcrt|ole32|ws2_32|user32|advapi32|shell32)\.dll$'
for exe in corvane-live.exe corvane-analyze.exe; do
  while read -r dll; do
    if ! echo "$dll" | tr '[:upper:]' '[:lower:]' | grep -Eq "$system_dlls"; then
      echo "$exe needs $dll, which Windows does not ship" >&2
      exit 1
    fi
  done < <(x86_64-w64-mingw32-objdump -p "$build/$exe" | sed -n 's/^\s*DLL Name: //p')
done

name="CorvaneLive-$version-win64"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/$name"
cp "$build/corvane-live.exe" "$build/corvane-analyze.exe" "$stage/$name/"
# Notepad wants CRLF line ends.
sed -e "s/@VERSION@/$version/" -e 's/$/\r/' tools/windows_readme.txt > "$stage/$name/README.txt"
mkdir -p "$dist"
zip_path="$(cd "$dist" && pwd)/$name.zip"
rm -f "$zip_path"
(cd "$stage" && zip -q -r -X "$zip_path" "$name")
echo "$zip_path"
