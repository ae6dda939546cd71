#!/usr/bin/env bash
# Installs, with apt-get, whatever the build needs and is missing. Never prompts.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang clang-format libclang-rt-14-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    libsndfile1-dev nlohmann-json3-dev libcli11-dev
    g++-mingw-w64-x86-64 mingw-w64-x86-64-dev binutils-mingw-w64-x86-64
    libasound2-dev alsa-utils sox libsox-fmt-alsa python3 ffmpeg jackd2
    chromium time
    osslsigncode openssl libssl-dev
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -q
    "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
fi
