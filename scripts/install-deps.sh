#!/bin/bash
# Installs the Debian packages that the build, the tests, (with --bench) the
# benchmarks and (with --dev) the fuzzing and coverage tools need, when any is
# missing. Needs root or sudo for apt-get.
set -euo pipefail

packages=(
    build-essential g++ cmake make pkg-config
    libtrio-dev libssl-dev zlib1g-dev
    libgtest-dev libgmock-dev
    unicode-data
    curl
)
bench_packages=(
    libbenchmark-dev libxxhash-dev libicu-dev
    robin-map-dev libcmph-dev wamerican liblmdb-dev librocksdb-dev
    wrk nginx-light
)
dev_packages=(
    clang libclang-rt-14-dev gcovr
)
for option in "$@"; do
    case "$option" in
        --bench) packages+=("${bench_packages[@]}") ;;
        --dev) packages+=("${dev_packages[@]}") ;;
    esac
done

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    if [[ "$status" != "install ok installed" ]]; then
        missing+=("$package")
    fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
    exit 0
fi

echo "installing: ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
    sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
