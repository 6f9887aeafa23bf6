#!/usr/bin/env bash
# Installs the build into a fresh prefix, then builds consumers in C and C++ through find_package
# and one in C through pkg-config, each from that prefix only, and runs them with an empty
# environment. The consumers call only omkm* functions and link with --as-needed, so they record
# libomkm alone: the installed libomkm must find libomkcore itself.
# usage: check_install.sh <cmake> <build dir> <consumer source dir> <work dir> <C compiler> <C++ compiler>
set -euo pipefail
cmake_bin=$1 build=$2 src=$3 work=$4 cc=$5 cxx=$6
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
"$cmake_bin" --install "$build" --prefix "$prefix" >/dev/null
hpp=$(find "$prefix" -name omkm.hpp)
if [ ! -f "$(dirname "$hpp")/omkm_eigen.hpp" ]; then
  echo "omkm_eigen.hpp is not installed beside omkm.hpp ($hpp)"
  exit 1
fi

from_prefix() {  # the program's libomkm and libomkcore come from the prefix
  local deps
  deps=$(ldd "$1")
  for lib in libomkm.so libomkcore.so; do
    if ! grep "$lib" <<<"$deps" | grep -q "=> $prefix/"; then
      echo "$1 does not take $lib from $prefix:"
      echo "$deps"
      return 1
    fi
  done
}

run_bare() {  # the program records libomkm, not libomkcore, and starts with an empty environment
  if readelf -d "$1" | grep NEEDED | grep -q libomkcore; then
    echo "$1 records libomkcore itself; it does not show that libomkm finds its own dependency"
    return 1
  fi
  env -i PATH=/usr/bin:/bin "$1"
}

echo "== find_package(omkm CONFIG), C and C++ =="
"$cmake_bin" -S "$src" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed >/dev/null
"$cmake_bin" --build "$work/cmake-consumer" >/dev/null
for program in consumer consumer_cxx consumer_hpp; do
  from_prefix "$work/cmake-consumer/$program"
  run_bare "$work/cmake-consumer/$program"
done

echo "== pkg-config omkm =="
pcdir=$(dirname "$(find "$prefix" -name omkm.pc)")
export PKG_CONFIG_PATH=$pcdir
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror "$src/consumer.c" -o "$work/pc-consumer" \
  -Wl,--as-needed $(pkg-config --cflags --libs omkm) -Wl,-rpath,"$(pkg-config --variable=libdir omkm)"
from_prefix "$work/pc-consumer"
run_bare "$work/pc-consumer"

echo "== python3 -c 'import omkm' from the prefix =="
# The installed package, on PYTHONPATH only, must load the libomkm installed beside it (not the
# build tree's, nor one named by OMKM_LIBRARY), and compute with it.
if /usr/bin/python3 -c 'import numpy' 2>/dev/null; then
  pydir=$(dirname "$(find "$prefix" -path '*/omkm/__init__.py')")
  env -u OMKM_LIBRARY -u OMKM_UFUNCS PYTHONPATH="$(dirname "$pydir")" PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 - "$prefix" <<'PY'
import os, sys
import numpy as np
import omkm
prefix = os.path.realpath(sys.argv[1])
assert os.path.realpath(omkm.__file__).startswith(prefix), omkm.__file__
assert os.path.realpath(omkm.library_path).startswith(prefix), omkm.library_path
a = np.arange(2 * 9, dtype=np.float64).reshape(2, 3, 3)
assert np.array_equal(omkm.add(a, a), a + a)
print("omkm", omkm.__file__, "uses", omkm.library_path)
if os.environ.get("OMKM_EXPECT_UFUNCS") == "1":     # the compiled gufuncs, installed beside the package
    assert omkm.ufuncs.path and os.path.realpath(omkm.ufuncs.path).startswith(prefix), omkm.ufuncs.path
    assert np.array_equal(omkm.ufuncs.matmul(a, a), a @ a)
    print("omkm.ufuncs", omkm.ufuncs.path)
PY
else
  echo "numpy is not installed for /usr/bin/python3; skipped"
fi
