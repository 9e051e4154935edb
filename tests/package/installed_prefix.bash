# What a host outside the tree finds in an installed library; sourced by the tests of installation and
# packages.

warnings=(-Wall -Wextra -Wpedantic -Wshadow -Werror)

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

# By library, what its host in consumer/ prints.
declare -A expected_outputs=(
  [motor_driver]='counts per revolution 4096, CAN error set: yes'
  [motor_driver_wheels]='ready: 1, commanded: 1, stopped: 1, without a file: 1'
)

# PROGRAM OUTPUT
expect_output() {
  local program=$1 expected=$2 actual
  actual=$(SPDLOG_STDOUT=false SPDLOG_SYSTEMD=false SPDLOG_LEVEL=info "$program" 2>/dev/null) ||
    fail "$program ended with $?"
  [[ $actual == "$expected" ]] || fail "$program printed: $actual"
}

# check_documented_builds SOURCE_DIRECTORY PREFIX SCRATCH_DIRECTORY
# What the documents tell a host's developer to type, with pkg-config set up for the prefix.
check_documented_builds() {
  local source=$1 prefix=$2 scratch=$3 command
  command=$(grep '^g++ ' "$source/README.md")
  (cd "$source" && bash -ec "${command/% -o first_turn/ -o $scratch/first_turn}") ||
    fail "README: $command"
  [[ -x $scratch/first_turn ]] || fail "README: $command made no program"

  mkdir "$scratch/my_robot"
  awk '/^```cmake$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/docs/install.md" \
    > "$scratch/my_robot/CMakeLists.txt"
  cp "$source/examples/without_hardware.cpp" "$scratch/my_robot/my_robot.cpp"
  command=$(grep '^cmake -G ' "$source/docs/install.md")
  (cd "$scratch/my_robot" && CMAKE_PREFIX_PATH=$prefix bash -ec "$command" > "$scratch/my_robot.log") ||
    fail "docs/install.md: $command"
  [[ -x $scratch/my_robot/build/my_robot ]] || fail "docs/install.md: no program"
}

# check_installed_prefix PREFIX CXX SCRATCH_DIRECTORY NAME_OF_DOCUMENTATION
# Builds hosts against PREFIX, once with find_package and once with pkg-config, and runs them.
check_installed_prefix() {
  local prefix=$1 cxx=$2 scratch=$3 documents=$1/share/doc/$4
  local here version libdir headers header library soname program flags
  here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
  version=$(sed -n 's/^project(motor_driver VERSION \([0-9.]*\).*/\1/p' "$here/../../CMakeLists.txt")
  libdir=$(dirname "$(find "$prefix" -name libmotor_driver.so)")

  headers=$(cd "$prefix/include/motor_driver" && echo *)
  [[ $headers == "$(cd "$here/../../include" && echo *)" ]] || fail "installed headers: $headers"
  if grep -nE '#include *<(spdlog|fmt|yaml-cpp|systemd|linux/can)' \
      "$prefix"/include/motor_driver/*; then
    fail "a public header shows a dependency"
  fi
  for library in motor_driver motor_driver_wheels; do
    soname=$(objdump -p "$libdir/lib$library.so" | awk '$1 == "SONAME" { print $2 }')
    [[ $soname =~ ^lib$library\.so\.[0-9.]+$ ]] || fail "SONAME is '$soname'"
    [[ -e $libdir/$soname ]] || fail "$soname is not installed"
  done

  [[ -s $prefix/share/motor_driver/kinco.yaml ]] || fail "kinco.yaml is not installed"
  local file
  for file in "$here"/../../packaging/{vehicles,eds}/*; do
    cmp "$file" "$prefix/share/motor_driver/${file#*/packaging/}" ||
      fail "${file##*/} is not installed"
  done
  local unit
  for unit in motor-host@.service motor-record@.service; do
    [[ -s $prefix/share/motor_driver/$unit ]] || fail "$unit is not installed"
  done

  local document
  for document in README.md docs/motorctl.md docs/wheels.md docs/jog.svg examples/drive_cycle.cpp; do
    cmp "$here/../../$document" "$documents/$document" || fail "$document is not installed"
  done
  LD_LIBRARY_PATH=$libdir "$prefix/bin/motorctl" --version > "$scratch/version" ||
    fail "motorctl --version"
  [[ $(< "$scratch/version") == *"$version"* ]] || fail "motorctl is $(< "$scratch/version")"

  for header in $headers; do
    "$cxx" -std=c++17 "${warnings[@]}" -fsyntax-only -x c++ -I"$prefix/include/motor_driver" \
      - <<< "#include <$header>" || fail "$header does not compile alone"
  done

  cmake -G Ninja -S "$here/consumer" -B "$scratch/cmake-build" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_PREFIX_PATH="$prefix" > "$scratch/configure.log" || fail "find_package"
  grep -q "^motor_driver_DIR:PATH=$libdir/" "$scratch/cmake-build/CMakeCache.txt" ||
    fail "find_package took another installation"
  cmake --build "$scratch/cmake-build" > "$scratch/build.log" || fail "build with find_package"
  for library in "${!expected_outputs[@]}"; do
    expect_output "$scratch/cmake-build/${library}_consumer" "${expected_outputs[$library]}"
  done

  export PKG_CONFIG_PATH=$libdir/pkgconfig
  for library in "${!expected_outputs[@]}"; do
    program=$scratch/pkg-config-${library}_consumer
    read -ra flags <<< "$(pkg-config --cflags --libs "$library")"
    # Some distributions link as needed by default: then a library that only another one uses is
    # found by that one.
    "$cxx" -std=c++17 "${warnings[@]}" "$here/consumer/${library}_consumer.cpp" \
      -Wl,-rpath,"$libdir",--as-needed "${flags[@]}" -o "$program" || fail "build with pkg-config"
    expect_output "$program" "${expected_outputs[$library]}"
    [[ $(pkg-config --modversion "$library") == "$version" ]] || fail "pkg-config version"
  done

  # The example for a machine without CAN needs nothing but the package.
  read -ra flags <<< "$(pkg-config --cflags --libs motor_driver_wheels)"
  "$cxx" -std=c++17 "${warnings[@]}" "$here/../../examples/without_hardware.cpp" \
    -Wl,-rpath,"$libdir",--as-needed "${flags[@]}" -o "$scratch/without_hardware" || fail "build of without_hardware"
  "$scratch/without_hardware" > "$scratch/without_hardware.log" 2>&1 || fail "without_hardware"

  check_documented_builds "$here/../.." "$prefix" "$scratch"

  echo "find_package and pkg-config consumers built and ran"
}
