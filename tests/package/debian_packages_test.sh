#!/usr/bin/env bash
# Installs the Debian packages of a directory into a scratch root, with the packages of this machine as
# what is there already, and uses them as a host's developer does. Packages for another architecture
# are only looked at. tools/make-packages makes them, and "tools/install-dependencies all" installs what
# this needs besides: dpkg-dev, lintian, CMake, Ninja, pkg-config and the compiler CXX.
# Usage: debian_packages_test.sh DIRECTORY CXX
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=/dev/null
source "$here/installed_prefix.bash"
directory=$(realpath "$1")
cxx=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root

for program in dpkg-shlibdeps lintian cmake ninja pkg-config "$cxx"; do
  command -v "$program" > /dev/null || fail "no $program: tools/install-dependencies all"
done
packages=("$directory"/*.deb)
[[ -e ${packages[0]} ]] || fail "no packages in $directory: tools/make-packages makes them"
names=$(for package in "${packages[@]}"; do dpkg-deb --field "$package" Package; done)
names=$(sort <<< "$names" | tr '\n' ' ')
[[ $names =~ ^libmotor-driver-dev\ libmotor-driver[0-9.]+\ motor-driver-tools\ $ ]] ||
  fail "packages: $names"
runtime=$(cut -d ' ' -f 2 <<< "$names")

# That an upload closes a bug of the distribution is asked of its own packages only.
lintian=(lintian "--fail-on=error,warning" --suppress-tags initial-upload-closes-no-bugs)
if ((EUID == 0)); then
  lintian+=(--allow-root)
fi
"${lintian[@]}" "${packages[@]}" || fail "lintian"

architecture=$(dpkg-deb --field "${packages[0]}" Architecture)
if [[ $architecture != "$(dpkg --print-architecture)" ]]; then
  [[ $(dpkg-deb --field "$directory/$runtime"_*.deb Depends) == *libc6* ]] || fail "no dependencies"
  echo "packages $names: well made for $architecture"
  exit 0
fi

# Dependencies are checked against what this machine has; files and database go into the scratch root.
mkdir -p "$root" "$scratch/dpkg/"{info,updates}
cp /var/lib/dpkg/status "$scratch/dpkg"
cp /var/lib/dpkg/info/format "$scratch/dpkg/info"
dpkg_scratch=(dpkg --instdir="$root" --admindir="$scratch/dpkg" --force-not-root
  --force-script-chrootless --no-triggers --log="$scratch/dpkg.log")
"${dpkg_scratch[@]}" --install "${packages[@]}" > "$scratch/install.log" 2>&1 ||
  { grep -v 'files list file' "$scratch/install.log" >&2; fail "dpkg --install"; }

# The loader looks there without being told.
LD_LIBRARY_PATH=$(dirname "$(find "$root" -name libmotor_driver.so)")
export LD_LIBRARY_PATH
check_installed_prefix "$root/usr" "$cxx" "$scratch" motor-driver-tools

# A host packaged in turn depends on the runtime package.
mkdir -p "$scratch/host/debian" "$root/DEBIAN"
touch "$scratch/host/debian/control"
dpkg-deb --control "$directory/$runtime"_*.deb "$root/DEBIAN"
dependencies=$(cd "$scratch/host" && dpkg-shlibdeps -S"$root" -O ../pkg-config-motor_driver_wheels_consumer 2> /dev/null)
[[ $dependencies == *"$runtime (>= "* ]] || fail "dependencies of a host: $dependencies"

for program in "$root"/usr/bin/*; do
  "$program" --help > "$scratch/help" || fail "$program --help"
  [[ -s $scratch/help ]] || fail "$program --help printed nothing"
done
"$root/usr/bin/motor-drive-sim" --version > /dev/null

# Nobody has changed these files, so nothing stays behind.
# shellcheck disable=SC2086  # the names
"${dpkg_scratch[@]}" --purge $names > "$scratch/purge.log" 2>&1 || fail "dpkg --purge"
rm -r "$root/DEBIAN"
left=$(find "$root" ! -type d)
[[ -z $left ]] || fail "left behind: $left"
echo "packages $names: installed, used and removed"
