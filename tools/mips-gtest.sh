#!/usr/bin/env bash
# Cross-builds GoogleTest for big-endian MIPS from Debian's sources (package googletest) and
# installs it into DIR/prefix (default DIR: build-mips/gtest-mips), so that a MIPS build of the
# unit tests finds it:
#
#   bash tools/mips-gtest.sh
#   cmake -S . -B build-mips -DCMAKE_TOOLCHAIN_FILE=cmake/mips-linux-gnu.cmake \
#         -DCMAKE_PREFIX_PATH=$PWD/build-mips/gtest-mips/prefix
#
# Does nothing when DIR/prefix already holds a build of the same googletest version made with the
# same toolchain file. Needs g++-mips-linux-gnu, googletest and cmake.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
DIR=${1:-$ROOT/build-mips/gtest-mips}
JOBS=${MLD_JOBS:-2}
TOOLCHAIN=$ROOT/cmake/mips-linux-gnu.cmake
SOURCE=/usr/src/googletest

if [[ ! -f $SOURCE/CMakeLists.txt ]]; then
  echo "mips-gtest: $SOURCE is missing (apt-get install googletest)" >&2
  exit 1
fi
want="googletest $(dpkg-query -W -f='${Version}' googletest) $(sha256sum "$TOOLCHAIN" | cut -d' ' -f1)"
stamp=$DIR/prefix/.built
if [[ -f $stamp && $(cat "$stamp") == "$want" ]]; then
  echo "mips-gtest: up to date in $DIR/prefix"
  exit 0
fi
echo "mips-gtest: building $SOURCE for MIPS into $DIR"
rm -rf "$DIR"
cmake -S "$SOURCE" -B "$DIR/build" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=Release \
  -DBUILD_GMOCK=OFF -DCMAKE_INSTALL_PREFIX="$DIR/prefix"
cmake --build "$DIR/build" -j"$JOBS"
cmake --install "$DIR/build"
echo "$want" >"$stamp"
echo "mips-gtest: installed into $DIR/prefix"
