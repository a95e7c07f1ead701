#!/usr/bin/env bash
# Installs the build tree into a throwaway prefix and uses it as a consumer would:
# every public header compiled alone as C and as C++, a C program linked through
# pkg-config (shared and static), a CMake project using find_package(fsic), and the
# command fsic with its manual page, report schema, example policy, units and bash
# completion.
#   install_test.sh <cmake> <build dir> <source dir of this test>
set -euo pipefail
cmake_bin=$1 build=$2 here=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/fsic-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

"$cmake_bin" --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libfsic.so' | head -n1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
test -f "$libdir/libfsic.a"
test -f "$libdir/pkgconfig/fsic.pc"
test -f "$libdir/cmake/fsic/fsicConfig.cmake"

echo "== the command, its manual page and its report schema"
"$prefix/bin/fsic" --version
test -f "$prefix/share/man/man1/fsic.1"
# The page formats without a single warning.
warnings=$(groff -man -Tutf8 -ww -z "$prefix/share/man/man1/fsic.1" 2>&1)
[[ -z $warnings ]] || { echo "$warnings"; exit 1; }
test -f "$prefix/share/fsic/report.schema.json"

echo "== the example policy, the daily check's units, bash completion"
test -f "$prefix/etc/fsic/policy"
test -f "$prefix/lib/systemd/system/fsic-check.service"
test -f "$prefix/lib/systemd/system/fsic-check.timer"
bash -n "$prefix/share/bash-completion/completions/fsic"

echo "== headers, each alone, as C and as C++"
for h in "$prefix"/include/fsic/*.h; do
  name=fsic/$(basename "$h")
  printf '#include <%s>\n' "$name" |
    cc -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" -
  printf '#include <%s>\n' "$name" |
    c++ -x c++ -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" -
  echo "  $name"
done

echo "== C program through pkg-config"
cc -std=c11 -Wall -Wextra -Werror "$here/consumer.c" -o "$work/consumer_pc" \
  $(pkg-config --cflags --libs fsic)
LD_LIBRARY_PATH=$libdir "$work/consumer_pc"
cc -std=c11 -Wall -Wextra -Werror "$here/consumer.c" -o "$work/consumer_pc_static" \
  $(pkg-config --cflags fsic) "$libdir/libfsic.a" $(pkg-config --libs-only-l --static fsic | sed 's/-lfsic//')
"$work/consumer_pc_static"

echo "== CMake project through find_package(fsic)"
"$cmake_bin" -S "$here/cmake_consumer" -B "$work/cmake" -G Ninja \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
"$cmake_bin" --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake/consumer_c"
LD_LIBRARY_PATH=$libdir "$work/cmake/consumer_cxx"
"$work/cmake/consumer_cxx_static"
echo "install test: ok"
