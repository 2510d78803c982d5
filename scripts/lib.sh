# shellcheck shell=bash
# Sourced by the scripts beside it: what they share. Leaves the shell in the project's root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# need PACKAGE...: installs those of the Debian packages that are missing, and nothing when none is.
need() {
  local missing=() package as_root=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  echo "installing: ${missing[*]}"
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
}

# What building the library, its tests, benchmarks and examples takes, and what running them takes.
need_build() {
  need g++ cmake ninja-build pkg-config libgrpc++-dev libgrpc-dev protobuf-compiler protobuf-compiler-grpc \
    libprotobuf-dev libfmt-dev libspdlog-dev libgtest-dev libgmock-dev libssl-dev libbenchmark-dev libasio-dev \
    libnl-3-dev zlib1g-dev libtomlplusplus-dev libsystemd-dev prometheus-cpp-dev
}

need_run() {
  need iproute2 iputils-ping openssl python3 python3-grpcio python3-protobuf python3-rich nghttp2-client bird2
}

# build PRESET [TARGET...]: configures and builds a preset of CMakePresets.json.
build() {
  local preset=$1
  shift
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" "${@/#/--target=}"
}

# Names every Python source of the project, with or without an ending, one a line.
python_sources() {
  git ls-files '*.py' ':!.cmake-format.py'
  git grep -lE '^#!.*python3?$' -- ':!*.py'
}
