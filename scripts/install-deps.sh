#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/debian-packages.txt that are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
mapfile -t wanted < <(grep -v '^\s*#' "$here/debian-packages.txt" | grep -v '^\s*$')
missing=()
for package in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    echo "install-deps: all ${#wanted[@]} packages present"
    exit 0
fi
sudo=""
if [[ $(id -u) -ne 0 ]]; then
    sudo="sudo"
fi
echo "install-deps: installing ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
