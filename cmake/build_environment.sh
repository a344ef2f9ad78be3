# Sourced by ./run, ./test, fuzz/run and the scripts in bench/: installs the packages they need and builds presets.
#
# shellcheck shell=sh

# The packages that install_missing checks.
packages='g++ cmake ninja-build pkg-config ccache libjsoncpp-dev libgtest-dev libgmock-dev
  tini util-linux procps attr ssmtp apache2-bin python3 dpkg-dev file man-db'
# Further packages for the preset aarch64.
packages_aarch64='g++-aarch64-linux-gnu libjsoncpp-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 qemu-user-static'

# Lists the missing ones of $packages, then installs them. With VISTALPROD_INSTALL=no it only lists them and continues,
# for machines that get these tools from elsewhere.
install_missing() {
  missing=
  for package in $packages; do
    case $(dpkg-query --show --showformat='${Status}' "$package" 2>/dev/null) in
      *'install ok installed'*) ;; # printed once per installed architecture
      *) missing="$missing $package" ;;
    esac
  done
  if [ -z "$missing" ]; then return; fi
  if [ "${VISTALPROD_INSTALL-}" = no ]; then
    echo "$0: not installed:$missing" >&2
    return
  fi
  if [ "$(id -u)" != 0 ]; then
    echo "$0: only root can run apt-get install$missing (VISTALPROD_INSTALL=no continues without)" >&2
    exit 1
  fi
  echo "$0: runs apt-get update and apt-get install$missing (not with VISTALPROD_INSTALL=no)"
  export DEBIAN_FRONTEND=noninteractive
  case $missing in
    *:arm64*)
      echo "$0: runs dpkg --add-architecture arm64 before that"
      dpkg --add-architecture arm64
      ;;
  esac
  # shellcheck disable=SC2086 # one word per package
  if ! { apt-get -qq update && apt-get -qq install --no-install-recommends $missing; } >/tmp/apt.$$ 2>&1; then
    cat /tmp/apt.$$ >&2
    rm -f /tmp/apt.$$
    exit 1
  fi
  rm -f /tmp/apt.$$
}

# build PRESET [TARGET...]: builds all targets if none is named. Prints only errors.
build() {
  preset=$1
  shift
  log=$(mktemp)
  if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    exit 1
  fi
  rm -f "$log"
}

# emulated BUILD CMD...: runs CMD so that the AArch64 programs in BUILD can be executed. If the kernel already has an
# emulator registered, it runs CMD directly. Otherwise it registers one in a user namespace, which is possible from
# Linux 6.7 on: flag P passes argument 0 to the program, flag F keeps the emulator available inside the appliance. If
# that fails, CMD runs anyway: ctest then starts the emulator itself, and skips the tests that need the appliance.
emulated() {
  probe=$1/bin/ksctl
  shift
  if "$probe" -h >/dev/null 2>&1; then
    "$@"
    return
  fi
  # The first 20 bytes of an executable for AArch64.
  magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
  mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
  # shellcheck disable=SC2016 # for the shell inside
  prepare='mount -t binfmt_misc none /proc/sys/fs/binfmt_misc &&
    printf %s "$1" >/proc/sys/fs/binfmt_misc/register && shift && exec "$@"'
  rule=":aarch64:M::$magic:$mask:$(command -v qemu-aarch64-static):PF"
  if unshare --user --map-root-user --mount sh -c "$prepare" - "$rule" "$probe" -h >/dev/null 2>&1; then
    set -- unshare --user --map-root-user --mount sh -c "$prepare" - "$rule" "$@"
  else
    echo "no kernel help to start programs for AArch64: what needs the appliance is skipped"
  fi
  "$@"
}
