# Sourced by the other scripts: installs what a fresh Debian 12 machine lacks.

# ensure_packages CHECK:PACKAGE... - CHECK is a command name, or the path of a file.
ensure_packages() {
  local entry check missing=()
  for entry in "$@"; do
    check=${entry%%:*}
    if [[ $check == /* ]]; then
      [[ -e $check ]] || missing+=("${entry##*:}")
    else
      command -v "$check" >/dev/null || missing+=("${entry##*:}")
    fi
  done
  ((${#missing[@]})) || return 0

  local as_root=()
  if [[ $(id -u) != 0 ]]; then
    command -v sudo >/dev/null || {
      echo "missing: ${missing[*]}; install them as root, or install sudo" >&2
      return 1
    }
    as_root=(sudo)
  fi
  echo "== installing: ${missing[*]}"
  if [[ -z ${package_lists_read-} ]]; then
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    package_lists_read=1
  fi
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# What every build needs.
setup_build_machine() {
  ensure_packages g++:g++ cmake:cmake ninja:ninja-build \
    /usr/include/jsoncpp/json/json.h:libjsoncpp-dev /usr/include/CLI/CLI.hpp:libcli11-dev
}

# What the tests need beside it.
setup_test_machine() {
  setup_build_machine
  ensure_packages /usr/include/gtest/gtest.h:libgtest-dev pkg-config:pkg-config python3:python3 socat:socat \
    /usr/sbin/tc:iproute2
}

# What the further checks need beside it.
setup_check_machine() {
  setup_test_machine
  setup_package_machine
  setup_abi_machine
  setup_docs_machine
  setup_bench_machine
  ensure_packages clang++:clang clang-format:clang-format clang-tidy:clang-tidy git:git gcovr:gcovr
}

# What the packages need.
setup_package_machine() {
  setup_build_machine
  ensure_packages dpkg-buildflags:dpkg-dev file:file git:git lintian:lintian
}

# What the check of the ABI needs.
setup_abi_machine() {
  setup_build_machine
  ensure_packages abidiff:abigail-tools git:git
}

# What the manual needs.
setup_docs_machine() {
  ensure_packages doxygen:doxygen
}

# What the benchmarks need: the tool, the peers, the charts.
setup_bench_machine() {
  setup_build_machine
  ensure_packages /usr/include/benchmark/benchmark.h:libbenchmark-dev /usr/include/asio.hpp:libasio-dev \
    /usr/include/event2/event.h:libevent-dev /usr/include/zmq.h:libzmq3-dev /usr/include/nng/nng.h:libnng-dev \
    pkg-config:pkg-config python3:python3 taskset:util-linux strace:strace gnuplot:gnuplot-nox
}
