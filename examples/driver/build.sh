#!/bin/sh
# Builds quorc against the package installed under $QUOR_PREFIX (/usr for the
# Debian package), in ./build.
set -eu
cd "$(dirname "$0")"
cmake -S . -B build -DCMAKE_PREFIX_PATH="$QUOR_PREFIX"
cmake --build build
