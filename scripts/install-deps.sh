#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/debian-packages.txt that are
# not installed yet. Idempotent: does nothing when all are present.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mapfile -t wanted < <(grep -v -E '^\s*(#|$)' "$here/debian-packages.txt")
# The guest page's tests run under node and drive Chromium from npm packages.
# Debian's nodejs and npm only where no node is found at all: a machine that
# has node from elsewhere would see Debian's npm conflict with it.
command -v node >/dev/null || wanted+=(nodejs)
command -v npm >/dev/null || wanted+=(npm)
missing=()
for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "Installing Debian packages: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
