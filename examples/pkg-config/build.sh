#!/bin/sh
# Builds quorc without CMake, with the flags of the pkg-config file. Set
# PKG_CONFIG_PATH to <prefix>/lib/pkgconfig when the package is not under /usr.
set -eu
cd "$(dirname "$0")"
c++ -std=c++20 -o quorc ../driver/main.cpp $(pkg-config --cflags --libs quor-bootstrap)
