# Sourced by ./run and ./test: what both need installed and built.

packages='g++ cmake ninja-build pkg-config ccache libjsoncpp-dev libgtest-dev libgmock-dev
  tini util-linux procps attr ssmtp apache2-bin python3 dpkg-dev file'

install_missing() {
  missing=
  for package in $packages; do
    case $(dpkg-query --show --showformat='${Status}' "$package" 2>/dev/null) in
      *'install ok installed'*) ;; # once per architecture that it is installed for
      *) missing="$missing $package" ;;
    esac
  done
  if [ -z "$missing" ]; then return; fi
  if [ "$(id -u)" != 0 ]; then
    echo "$0: not installed, and only root can do that: apt-get install$missing" >&2
    exit 1
  fi
  echo "installing:$missing"
  export DEBIAN_FRONTEND=noninteractive
  # shellcheck disable=SC2086 # one word a package
  if ! { apt-get -qq update && apt-get -qq install --no-install-recommends $missing; } >/tmp/apt.$$ 2>&1; then
    cat /tmp/apt.$$ >&2
    rm -f /tmp/apt.$$
    exit 1
  fi
  rm -f /tmp/apt.$$
}

# build PRESET [TARGET...]: all targets when none is named. Prints nothing but errors.
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
