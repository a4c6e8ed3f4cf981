# shellcheck shell=bash disable=SC2034,SC2154
# What ./run, ./test and ./bench share: the packages they need and the build. Sourced, not run.
#
# Everything that is said goes to standard error: standard output belongs to the script that
# ./run runs and to the test results.
#
# Needs: bash 5, and `root`, the folder of the project, set by the script that sources this.

preset=release
build_dir="$root/build/$preset"

# What the plugin and the host are built from and run with.
build_packages=(g++ cmake ninja-build qtbase5-dev qtbase5-private-dev qtscript5-dev libreadline-dev
  libqt5sql5-sqlite qttools5-dev-tools)
# What the tests are built from: headers, and the drivers of every database system.
test_packages=(libsqlite3-dev libpq-dev
  libqt5sql5-psql libqt5sql5-mysql libqt5sql5-ibase libqt5sql5-odbc)
# The servers that tests start. A test whose server is missing says so and is skipped.
server_packages=(postgresql pgbouncer mariadb-server galera-4 rsync firebird3.0-server
  firebird3.0-server-core firebird3.0-utils unixodbc odbc-postgresql libsqliteodbc)

# What tests call to look at packages and pictures. Those that miss one are skipped likewise.
tool_packages=(dpkg-dev lintian fakeroot tmux python3)

say() { printf 'vext: %s\n' "$*" >&2; }

die() {
  say "$*"
  exit 1
}

is_debian() { command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; }

# Prints those of the packages that are not installed, one a line. Needs no network.
missing_packages() {
  local installed package
  # It fails where a package is unknown, and prints the others all the same.
  installed=$(dpkg-query -W -f '${Package}=${db:Status-Status}\n' "$@" 2>/dev/null) || true
  for package in "$@"; do
    grep -qxF "$package=installed" <<<"$installed" || printf '%s\n' "$package"
  done
}

# Runs a command as root, through sudo where needed.
as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    say "not root, and there is no sudo; as root, run: $*"
    return 1
  fi
}

apt() {
  # Input from nowhere: a package that asks a question must not wait for an answer.
  as_root env DEBIAN_FRONTEND=noninteractive apt-get "$@" </dev/null >&2
}

lists_are_fresh=
refresh_lists() {
  [ -n "$lists_are_fresh" ] && return 0
  lists_are_fresh=yes
  say "reading the package lists"
  apt update -q || say "the package lists could not be read; trying with those that are here"
}

install_packages() {
  refresh_lists
  say "installing: $*"
  apt install -y -q --no-install-recommends "$@"
}

# Installs what is missing of the packages; ends the program where that is not possible.
require_packages() {
  if ! is_debian; then
    say "not a Debian system: please see to these yourself: $*"
    return
  fi
  local missing
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} = 0 ] && return 0
  install_packages "${missing[@]}" || die "could not install: ${missing[*]}"
}

# Installs what is missing of the packages, one by one where all together is not possible, and
# leaves in `lacking` those that cannot be had.
lacking=()
want_packages() {
  is_debian || return 0
  local missing package
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} = 0 ] && return 0
  install_packages "${missing[@]}" && return
  for package in "${missing[@]}"; do
    install_packages "$package" || lacking+=("$package")
  done
}

cached() { sed -n "s/^$1:[A-Z]*=//p" "$build_dir/CMakeCache.txt" 2>/dev/null; }

# configure ON|OFF: prepares the build folder, with or without the tests. A folder prepared with
# tests serves both.
configure() {
  local tests=$1
  if [ -f "$build_dir/build.ninja" ]; then
    [ "$tests" = OFF ] && return 0
    [ "$(cached VEXT_BUILD_TESTS)" = ON ] && return 0
  fi
  say "preparing $build_dir"
  (cd "$root" && cmake --preset "$preset" -DVEXT_BUILD_TESTS="$tests" </dev/null >&2) ||
    die "the build could not be prepared"
}

# Adds the benchmarks to the build folder, and leaves its tests as they are.
configure_benchmarks() {
  configure OFF
  [ "$(cached VEXT_BUILD_BENCHMARKS)" = ON ] && return 0
  say "adding the benchmarks to $build_dir"
  (cd "$root" && cmake -DVEXT_BUILD_BENCHMARKS=ON "$build_dir" </dev/null >&2) ||
    die "the build could not be prepared"
}

# build TARGET...: silent where nothing is to do.
build() {
  case "$(ninja -C "$build_dir" -n "$@" 2>/dev/null | tail -n 1)" in
    *'no work to do.') return ;;
  esac
  say "building the $preset preset: $*"
  ninja -C "$build_dir" "$@" </dev/null >&2 || die "the build failed"
}
