#!/usr/bin/env bash
# Installs the built library into a scratch prefix and builds a host against it, with nothing of the
# build tree in reach.
# Usage: package_test.sh BUILD_DIRECTORY CXX
set -euo pipefail

# shellcheck source=/dev/null
source "$(dirname "$0")/installed_prefix.bash"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$1" --prefix "$scratch/first" > "$scratch/install.log"
# A prefix may be staged in one place and used in another.
mv "$scratch/first" "$scratch/prefix"
check_installed_prefix "$scratch/prefix" "$2" "$scratch" motor_driver
