# What run.sh, test.sh and the scripts in tools/ share; sourced by them after they have set
# `checkout`.

build=$checkout/build
build_packages=(g++ make cmake pkgconf libcpp-httplib-dev libssl-dev libsqlite3-dev
  zlib1g-dev libbrotli-dev)
test_packages=(libgtest-dev libgmock-dev)
# What running every test takes besides.
suite_packages=(clang-format faketime locales-all valgrind)

# Messages go to standard error: standard output belongs to the server.
say() { printf '%s\n' "$*" >&2; }

# Runs a command as root: directly, or through sudo where there is one.
as_root() {
  if ((EUID == 0)); then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    return 1
  fi
}

# Installs those of the Debian packages named that are missing. Ends the script when it cannot.
need_packages() {
  local installed package missing=()
  installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null) || true
  for package in "$@"; do
    grep -qxF "installed $package" <<<"$installed" || missing+=("$package")
  done
  ((${#missing[@]} > 0)) || return 0
  say "Installing: ${missing[*]}"
  # Old package lists may still do, so a failed update alone is no reason to stop.
  as_root apt-get -q update >&2 || true
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300 \
    install -y --no-install-recommends "${missing[@]}" >&2 && return 0
  say "These packages are missing and could not be installed: ${missing[*]}"
  say "Install them as root, then start again: apt-get install ${missing[*]}"
  exit 1
}

# Whether the build folder was configured for this checkout, and nothing was added since.
is_configured() {
  local stamp=$build/.configured
  [[ -f $stamp && -f $build/CMakeCache.txt ]] || return 1
  grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$checkout" "$build/CMakeCache.txt" || return 1
  # A folder's time changes when files come and go. Changed CMake files CMake sees by itself.
  [[ -z $(find "$checkout/src" "$checkout/tools" "$checkout/tests" "$checkout/CMakeLists.txt" \
    "$checkout/cmake" \( -type d -o -name CMakeLists.txt -o -name '*.cmake' \) \
    -newer "$stamp" -print -quit) ]]
}

# Configures the build folder as a release; further arguments go to cmake.
# shellcheck disable=SC2120
configure() {
  local fresh=()
  if [[ -f $build/CMakeCache.txt ]] &&
    ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$checkout" "$build/CMakeCache.txt"; then
    fresh=(--fresh)  # the folder was moved or copied from elsewhere
  fi
  cmake "${fresh[@]}" -S "$checkout" -B "$build" -D CMAKE_BUILD_TYPE=Release "$@" >&2
  touch -- "$build/.configured"
}

# Builds the targets given, all without any.
# shellcheck disable=SC2120
build() {
  cmake --build "$build" --parallel "$(nproc)" ${1+--target "$@"} >&2
}

# From here on `build` means the folder of this preset, which is configured.
use_preset() {
  build=$checkout/build-$1
  (cd -- "$checkout" && cmake --preset "$1") >&2
}

# A port on which nobody listens, in $port.
free_port() {
  while port=$((20000 + RANDOM % 20000)); (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
}

# Minutes, a fraction allowed, as whole seconds.
in_seconds() {
  awk -v minutes="$1" 'BEGIN { if (minutes <= 0) exit 1; print int(minutes * 60 + 0.5) }' ||
    { say "Not a number of minutes: $1"; exit 2; }
}
