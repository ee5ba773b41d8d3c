#!/usr/bin/env bash
# What the project's commands need from Debian: every package once, the
# commands that need it, how to tell it is there, and why.
#
#   tools/setup.sh COMMAND...     (build test demo fuzz coverage lint bench)
#
# Packages a command needs and the machine lacks are installed when this runs
# as root with apt-get; otherwise it prints one line naming them and exits 1.
# Optional packages (line editing, strace) are installed when it may, and
# otherwise only named: nothing fails without them.
set -euo pipefail

# package | commands needing it | what shows it is there | why
packages=(
  "g++|build|cmd g++|the compiler"
  "cmake|build|cmd cmake|configures and builds every preset, runs ctest"
  "make|build|cmd make|runs the README's commands"
  "libgtest-dev|build|file /usr/include/gtest/gtest.h|GoogleTest, for the tests"
  "python3|build|cmd python3|the include layering check and the mutation sampler"
  "libedit-dev|build?|file /usr/include/editline/readline.h|line editing in the console (optional)"
  "libmicrohttpd-dev|build|file /usr/include/microhttpd.h|the panel's web server"
  "nlohmann-json3-dev|build|file /usr/include/nlohmann/json.hpp|the panel's JSON"
  "pkg-config|build|cmd pkg-config|finds libmicrohttpd for the build"
  "tshark|test|cmd tshark|runs the Wireshark dissector's tests"
  "mandoc|test|cmd mandoc|checks the manual pages"
  "dpkg-dev|test|cmd dpkg-shlibdeps|builds the Debian package that the install test unpacks"
  "lintian|test|cmd lintian|checks the Debian package"
  "chromium|test|cmd chromium|the headless browser the panel's tests drive"
  "chromium-driver|test|cmd chromedriver|drives that browser for the tests"
  "python3-selenium|test|pyselenium|the panel's tests, in Python, talk to the driver"
  "clang|fuzz lint|cmd clang++|builds the fuzz targets and their compilation database"
  "libclang-rt-14-dev|fuzz|fuzzer|libFuzzer's runtime, which clang ships apart"
  "gcovr|coverage|cmd gcovr|the coverage summary"
  "clang-tidy|lint|cmd clang-tidy|static analysis"
  "cppcheck|lint|cmd cppcheck|static analysis"
  "libbenchmark-dev|bench|file /usr/include/benchmark/benchmark.h|Google Benchmark"
  "strace|bench?|cmd strace|counts the backend's system calls (optional)"
)

# Every command needs the build; test and demo need nothing else to build.
groups=" build "
for command in "$@"; do
  case $command in
    build|demo) ;;
    test|fuzz|coverage|lint|bench) groups+="$command " ;;
    *) echo "setup: unknown command '$command' (build test demo fuzz coverage lint bench)" >&2
       exit 2 ;;
  esac
done
# The suite runs under coverage too.
[[ $groups == *" coverage "* ]] && groups+="test "

present() {
  local kind=${1%% *} what=${1#* }
  case $kind in
    cmd) command -v "$what" >/dev/null ;;
    file) [ -f "$what" ] ;;
    pyselenium) /usr/bin/python3 -c "import selenium" 2>/dev/null ;;
    fuzzer) command -v clang++ >/dev/null &&
              compgen -G "$(clang++ -print-runtime-dir)/libclang_rt.fuzzer-*.a" >/dev/null ;;
  esac
}

need=() optional=() why=()
for entry in "${packages[@]}"; do
  IFS='|' read -r package wanted check reason <<<"$entry"
  for group in $wanted; do
    [[ $groups == *" ${group%\?} "* ]] || continue
    present "$check" && break
    if [[ $group == *\? ]]; then optional+=("$package"); else need+=("$package"); fi
    why+=("$package: $reason")
    break
  done
done
[ ${#need[@]} -eq 0 ] && [ ${#optional[@]} -eq 0 ] && exit 0

if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
  all=("${need[@]}" "${optional[@]}")
  echo "setup: installing ${all[*]}" >&2
  printf 'setup:   %s\n' "${why[@]}" >&2
  # apt's own words only when it fails.
  log=$(mktemp)
  if ! { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${all[@]}"; } \
       >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "setup: apt-get could not install ${all[*]}" >&2
    exit 1
  fi
  rm -f "$log"
  exit 0
fi
[ ${#optional[@]} -eq 0 ] || echo "setup: optional, not installed: ${optional[*]}" >&2
if [ ${#need[@]} -gt 0 ]; then
  echo "setup: missing ${need[*]}; install them as root: apt-get install ${need[*]}" >&2
  exit 1
fi
