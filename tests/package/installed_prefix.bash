# What a host outside the tree finds in an installed library; sourced by the tests of installation and
# packages.

warnings=(-Wall -Wextra -Wpedantic -Wshadow -Werror)

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

expect_output() {
  local expected='counts per revolution 4096, CAN error set: yes'
  local actual
  actual=$(SPDLOG_STDOUT=false SPDLOG_SYSTEMD=false SPDLOG_LEVEL=info "$@" 2>/dev/null)
  [[ $actual == "$expected" ]] || fail "$1 printed: $actual"
}

# check_installed_prefix PREFIX CXX SCRATCH_DIRECTORY
# Builds hosts against PREFIX, once with find_package and once with pkg-config, and runs them.
check_installed_prefix() {
  local prefix=$1 cxx=$2 scratch=$3
  local here libdir headers header soname flags
  here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
  libdir=$(dirname "$(find "$prefix" -name libmotor_driver.so)")

  headers=$(cd "$prefix/include/motor_driver" && echo *)
  [[ $headers == "amps_driver.h driver_can.h driver_common.h fake_driver.h hls_driver.h kinco_driver.h tt_driver.h zl_driver.h" ]] || fail "installed headers: $headers"
  if grep -nE '#include *<(spdlog|fmt|yaml-cpp|systemd|linux/can)' \
      "$prefix"/include/motor_driver/*; then
    fail "a public header shows a dependency"
  fi
  soname=$(objdump -p "$libdir/libmotor_driver.so" | awk '$1 == "SONAME" { print $2 }')
  [[ $soname =~ ^libmotor_driver\.so\.[0-9.]+$ ]] || fail "SONAME is '$soname'"
  [[ -e $libdir/$soname ]] || fail "$soname is not installed"

  [[ -s $prefix/share/motor_driver/kinco.yaml ]] || fail "kinco.yaml is not installed"

  for header in $headers; do
    "$cxx" -std=c++17 "${warnings[@]}" -fsyntax-only -x c++ -I"$prefix/include/motor_driver" \
      - <<< "#include <$header>" || fail "$header does not compile alone"
  done

  cmake -G Ninja -S "$here/consumer" -B "$scratch/cmake-build" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" > "$scratch/configure.log" || fail "find_package"
  grep -q "^motor_driver_DIR:PATH=$libdir/" "$scratch/cmake-build/CMakeCache.txt" ||
    fail "find_package took another installation"
  cmake --build "$scratch/cmake-build" > "$scratch/build.log" || fail "build with find_package"
  expect_output "$scratch/cmake-build/consumer"

  export PKG_CONFIG_PATH=$libdir/pkgconfig
  read -ra flags <<< "$(pkg-config --cflags --libs motor_driver)"
  "$cxx" -std=c++17 "${warnings[@]}" "$here/consumer/consumer.cpp" "${flags[@]}" \
    -Wl,-rpath,"$libdir" -o "$scratch/pkg-config-consumer" || fail "build with pkg-config"
  expect_output "$scratch/pkg-config-consumer"

  # The example for a machine without CAN needs nothing but the package.
  "$cxx" -std=c++17 "${warnings[@]}" "$here/../../examples/without_hardware.cpp" "${flags[@]}" \
    -Wl,-rpath,"$libdir" -o "$scratch/without_hardware" || fail "build of without_hardware"
  "$scratch/without_hardware" > "$scratch/without_hardware.log" 2>&1 || fail "without_hardware"

  [[ $(pkg-config --modversion motor_driver) == "$(sed -n 's/^project(motor_driver VERSION \([0-9.]*\).*/\1/p' \
    "$here/../../CMakeLists.txt")" ]] || fail "pkg-config version"
  echo "find_package and pkg-config consumers built and ran"
}
