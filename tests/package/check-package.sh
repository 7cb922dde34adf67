#!/usr/bin/env bash
# Tries the Debian package the way a user of it would, without installing it:
# its metadata (dpkg-deb -I), its content, then the tool and the example driver
# run from the package unpacked (dpkg-deb -x) into a temporary root, each
# against a fresh cache, and the driver against the system cache the package
# ships. Nothing from the source or build tree is used but the .deb itself.
# tests/package/check-install.sh installs it with dpkg and tries it as a user.
#
#   tests/package/check-package.sh [PACKAGE.deb]    (default: build-package/*.deb)
set -euo pipefail
cd "$(dirname "$0")/../.."

deb=${1:-}
if [ -z "$deb" ]; then
  debs=(build-package/*.deb)
  [ -f "${debs[0]}" ] || { echo "check-package: no .deb in build-package/; run make package" >&2; exit 1; }
  deb=${debs[0]}
fi
deb=$(realpath "$deb")
version=$(sed -n 's/^project(Quor VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)

fail() { echo "check-package: $*" >&2; exit 1; }
work=$(mktemp -d "${TMPDIR:-/tmp}/quor-package-XXXXXX")
trap 'rm -rf "$work"' EXIT

# The control fields a user and apt see.
info=$(dpkg-deb -I "$deb")
echo "$info"
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = quor-bootstrap ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', the project is $version"
[ "$(field Architecture)" = "$(dpkg --print-architecture)" ] || fail "Architecture is '$(field Architecture)'"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
[ "$(field Section)" = devel ] || fail "Section is '$(field Section)'"
field Description | grep 'Quor standard library' >/dev/null || fail "Description does not say what the package is"
[ "$(field Description | wc -l)" -gt 1 ] || fail "Description has no long part"
field Depends | grep 'libc6' >/dev/null || fail "Depends lacks the C library: '$(field Depends)'"

# Everything the package promises, where Debian keeps it.
root=$work/root
dpkg-deb -x "$deb" "$root"
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
for path in \
    usr/bin/quor-stdlib \
    usr/share/quor/stdlib/Prelude.qr \
    usr/share/quor/stdlib/.quor-stdlib-fingerprint \
    "usr/share/quor/stdlib-cache/.first-launch/$version/lib/.quor-stdlib-ready" \
    "usr/share/quor/stdlib-cache/$version/lib/Prelude.qo" \
    usr/share/quor/PackageLocation.cpp \
    usr/include/quor/compiler/StandardLibraryBootstrap.h \
    usr/include/quor/compiler/Runtime.h \
    usr/include/quor/compiler/CacheLayers.h \
    "usr/lib/$multiarch/libquor_bootstrap.a" \
    "usr/lib/$multiarch/libquor_layers.a" \
    "usr/lib/$multiarch/libquor_services.a" \
    "usr/lib/$multiarch/cmake/QuorBootstrap/QuorBootstrapConfig.cmake" \
    "usr/lib/$multiarch/pkgconfig/quor-bootstrap.pc" \
    usr/share/man/man1/quor-stdlib.1 \
    usr/share/bash-completion/completions/quor-stdlib \
    usr/share/zsh/vendor-completions/_quor-stdlib \
    usr/share/doc/quor-bootstrap/README.md \
    usr/share/doc/quor-bootstrap/embedding.md \
    usr/share/doc/quor-bootstrap/examples/driver/main.cpp; do
  [ -f "$root/$path" ] || fail "the package has no $path"
done
# The zsh completion is the one generated from the tool's help, and zsh reads it.
head -1 "$root/usr/share/zsh/vendor-completions/_quor-stdlib" | grep -x '#compdef quor-stdlib' >/dev/null \
  || fail "the zsh completion does not start with #compdef quor-stdlib"
for word in status ensure verify prune clean --stdlib --cache-root --json --verbose --dry-run; do
  grep -e "$word" "$root/usr/share/zsh/vendor-completions/_quor-stdlib" >/dev/null \
    || fail "the zsh completion does not offer $word"
done
if command -v zsh >/dev/null; then
  zsh -n "$root/usr/share/zsh/vendor-completions/_quor-stdlib" || fail "zsh cannot read the zsh completion"
fi
if dpkg-deb -c "$deb" | grep -v ' \./usr/' | grep . >/dev/null; then
  fail "the package installs outside /usr: $(dpkg-deb -c "$deb" | grep -v ' \./usr/')"
fi

# The system cache: the installed library precompiled, certified for its
# fingerprint, every unit of it an object, readable by everyone, root's, and
# without the build lock, which a cache used read-only never takes.
system_cache=usr/share/quor/stdlib-cache
fingerprint=$(cat "$root/usr/share/quor/stdlib/.quor-stdlib-fingerprint")
marker=$root/$system_cache/.first-launch/$version/lib/.quor-stdlib-ready
grep -x "fingerprint=$fingerprint" "$marker" >/dev/null \
  || fail "the system cache's marker does not certify the installed library ($fingerprint): $(cat "$marker")"
grep -x "version=$version" "$marker" >/dev/null || fail "the system cache's marker is not for $version"
objects=$(find "$root/$system_cache/$version/lib" -name '*.qo' -type f | wc -l)
[ "$objects" -gt 0 ] || fail "the system cache holds no object"
[ "$(find "$root/$system_cache" -name '*.lock' | wc -l)" -eq 0 ] \
  || fail "the system cache ships a lock file: $(find "$root/$system_cache" -name '*.lock')"
odd=$(dpkg-deb -c "$deb" | grep " \./$system_cache/" \
  | grep -Ev '^(drwxr-xr-x|-rw-r--r--) root/root ' || true)
[ -z "$odd" ] || fail "system cache entries that are not root's 0755 folders or 0644 files: $odd"
echo "check-package: the system cache holds $objects objects certified for $fingerprint"

# The unpacked tool builds the unpacked library into a fresh cache, and
# certifies it with the library's own fingerprint. The system layer is off
# (an empty QUOR_SYSTEM_CACHE_DIR), so that the cache built is the user's.
cache=$work/cache
tool=$root/usr/bin/quor-stdlib
export QUOR_SYSTEM_CACHE_DIR=
env -u QUOR_STDLIB_PATH -u XDG_CACHE_HOME QUOR_CACHE_DIR="$cache" "$tool" status --check --quiet \
  && fail "status --check calls a fresh cache ready"
env -u QUOR_STDLIB_PATH -u XDG_CACHE_HOME QUOR_CACHE_DIR="$cache" "$tool" ensure
status=$(env -u QUOR_STDLIB_PATH -u XDG_CACHE_HOME QUOR_CACHE_DIR="$cache" "$tool" status --json)
echo "$status" | grep "\"library\": \"$root/usr/share/quor/stdlib\"" >/dev/null \
  || fail "the unpacked tool does not use the unpacked library: $status"
echo "$status" | grep '"fingerprintSource": "installed"' >/dev/null || fail "not the installed fingerprint: $status"
echo "$status" | grep '"ready": true' >/dev/null || fail "not ready after ensure: $status"
env -u QUOR_STDLIB_PATH -u XDG_CACHE_HOME QUOR_CACHE_DIR="$cache" "$tool" status --check --quiet \
  || fail "status --check: not ready after ensure"
"$tool" --version | grep -x "quor-stdlib $version (object ABI [0-9]*)" || fail "--version: $("$tool" --version)"

unset QUOR_SYSTEM_CACHE_DIR

# The example driver, built from the package's documentation against the
# unpacked prefix: with the system layer off it makes a fresh cache of its own
# ready; with its defaults it starts ready from the package's system cache,
# building and writing nothing.
cp -r "$root/usr/share/doc/quor-bootstrap/examples" "$work/examples"
QUOR_PREFIX=$root/usr sh "$work/examples/driver/build.sh" >"$work/driver-build.log" 2>&1 \
  || { cat "$work/driver-build.log"; fail "the example driver does not build against the package"; }
driver_cache=$work/driver-cache
output=$(env -u QUOR_STDLIB_PATH QUOR_CACHE_DIR="$driver_cache" \
  "$work/examples/driver/build/quorc" --no-system-cache 2>&1) \
  || { echo "$output"; fail "the example driver failed"; }
echo "$output"
echo "$output" | grep "quorc: standard library $root/usr/share/quor/stdlib$" >/dev/null \
  || fail "the driver does not default to the unpacked library"
echo "$output" | grep "quorc: standard library ready: [0-9]* units compiled" >/dev/null \
  || fail "the driver built nothing in a fresh cache"
output=$(env -u QUOR_STDLIB_PATH -u QUOR_SYSTEM_CACHE_DIR QUOR_CACHE_DIR="$work/driver-cache-2" \
  "$work/examples/driver/build/quorc" 2>&1) \
  || { echo "$output"; fail "the example driver failed over the system cache"; }
echo "$output"
echo "$output" | grep "quorc: precompiled in $root/$system_cache/$version/lib (system cache)$" >/dev/null \
  || fail "the driver does not start from the unpacked system cache"
if echo "$output" | grep -e "first start" -e "units compiled" >/dev/null; then
  fail "the driver built the library although the system cache is ready"
fi
[ ! -e "$work/driver-cache-2" ] || fail "the driver wrote into its own cache: $(find "$work/driver-cache-2")"
echo "check-package: $deb is sound"
