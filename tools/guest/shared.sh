# What with-can and the first processes of its guests share; for every shell.
# shellcheck shell=dash

# shellcheck disable=SC2034  # used where this is sourced
can_modules='can-raw can-dev vcan vxcan sch_netem sch_tbf'

# ROOT: empty where this is the root directory itself. Its /dev is mounted already.
mount_file_systems() {
  mount -t proc proc "$1/proc"
  mount -t sysfs sysfs "$1/sys"
  mkdir -p "$1/dev/pts" "$1/dev/shm"
  mount -t devpts -o mode=620,ptmxmode=666 devpts "$1/dev/pts"
  mount -t tmpfs -o mode=1777 tmpfs "$1/dev/shm"
  mount -t tmpfs -o mode=755 tmpfs "$1/run"
  ln -s /proc/self/fd "$1/dev/fd"
  ln -s /proc/self/fd/0 "$1/dev/stdin"
  ln -s /proc/self/fd/1 "$1/dev/stdout"
  ln -s /proc/self/fd/2 "$1/dev/stderr"
}

make_can_pair() {
  ip -batch - <<'BATCH'
link set lo up
link add dev can0 type vxcan peer name can1
link set can0 up
link set can1 up
BATCH
}
