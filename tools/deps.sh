#!/usr/bin/env bash
# Installs the Debian packages a build needs, or prints the exact command when
# we are not root. Usage: tools/deps.sh build|test|windows
set -euo pipefail

build_pkgs=(g++ cmake make pkg-config libsystemd-dev)
test_pkgs=(libgtest-dev libgmock-dev libbenchmark-dev zlib1g-dev pngcheck curl
           python3 python3-numpy python3-scipy chromium dbus python3-dbus python3-gi
           libedf-dev python3-mne qpdf poppler-utils clang libclang-rt-14-dev)
# The Windows cross-build and its smoke test under Wine (make windows,
# tools/wine_smoke.sh); not needed for everyday work.
windows_pkgs=(cmake make python3 zip curl qpdf g++-mingw-w64-x86-64-posix wine64 wine)

case "${1:-build}" in
  build) want=("${build_pkgs[@]}") ;;
  test) want=("${build_pkgs[@]}" "${test_pkgs[@]}") ;;
  windows) want=("${windows_pkgs[@]}") ;;
  *) echo "usage: $0 build|test|windows" >&2; exit 2 ;;
esac

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# Node may come from elsewhere than Debian (nodesource ships npm inside its
# nodejs package), so ask for the command rather than the package.
if [ "${1:-build}" = test ] && ! command -v npm >/dev/null 2>&1; then
  missing+=(nodejs npm)
fi
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run:  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
