#!/usr/bin/env bash
# Installs the Debian package with dpkg itself, into a disposable root with a
# dpkg database of its own, and uses it as an unprivileged user would: the
# system cache that the package ships must serve that user as it stands, so
# that neither quor-stdlib nor the example driver builds or writes anything in
# the user's home. Then dpkg must take the system cache away on a purge, and an
# upgrade to a package of another library must leave that library's cache
# alone, with nothing of the old one. No maintainer script does any of this:
# dpkg owns every file of the cache.
#
#   tests/package/check-install.sh [PACKAGE.deb]    (default: build-package/*.deb)
#
# It needs root: dpkg writes root-owned files, and the user is uid 65534.
set -euo pipefail
cd "$(dirname "$0")/../.."

fail() {
  echo "check-install: FAILED: $*" >&2
  exit 1
}
check() { echo "check-install: $*"; }
# Any command that fails unexpectedly fails the check, saying where.
trap 'fail "line $LINENO: a command failed (status $?)"' ERR

deb=${1:-}
if [ -z "$deb" ]; then
  debs=(build-package/*.deb)
  [ -f "${debs[0]}" ] || fail "no .deb in build-package/; run make package"
  deb=${debs[0]}
fi
deb=$(realpath "$deb")
[ "$(id -u)" -eq 0 ] || fail "run as root: dpkg installs root's files and the user is uid 65534"
command -v setpriv >/dev/null || fail "setpriv (util-linux) is needed to run as uid 65534"
version=$(sed -n 's/^project(Quor VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
user=65534

# Everything lies in one folder of root's, readable by all (the user runs the
# programs installed in it) and writable by root alone, below the sticky
# temporary directory: so the cache trust rules vouch for the path to the
# system cache, as they would for /usr/share.
work=$(mktemp -d "${TMPDIR:-/tmp}/quor-install-XXXXXX")
trap 'rm -rf "$work"' EXIT
chmod 0755 "$work"
root=$work/root
cache=usr/share/quor/stdlib-cache

# A root with an empty dpkg database: the status and available files, the
# folders for the packages' lists and for interrupted runs. dpkg creates
# the rest (its lock, the triggers folder) itself.
new_root() {
  rm -rf "$root"
  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
  chmod -R u=rwX,go=rX "$root"
}

# --force-depends: the root's database knows none of the packages the package
# depends on (the C and C++ runtimes, libssl-dev); the programs run with the
# host's. Nothing else is forced: the package has no maintainer script, so
# dpkg runs nothing in the root, and its architecture is the host's.
run_dpkg() {
  dpkg --root="$root" --log="$work/dpkg.log" --force-depends "$@" >"$work/dpkg.out" 2>&1 \
    || { cat "$work/dpkg.out"; fail "dpkg $*"; }
}

# A fresh home for the user, empty and theirs.
new_home() {
  home=$work/home-$1
  mkdir "$home"
  chown "$user:$user" "$home"
  chmod 0700 "$home"
}

# Runs a command as the user with the environment of someone who set nothing
# for Quor: no QUOR_STDLIB_PATH, QUOR_CACHE_DIR, QUOR_SYSTEM_CACHE_DIR nor
# XDG_CACHE_HOME, HOME their fresh home.
as_user() {
  (cd / && env -i PATH=/usr/bin:/bin HOME="$home" LANG=C.UTF-8 \
    setpriv --reuid="$user" --regid="$user" --clear-groups "$@")
}

listing() { find "$1" -printf '%p %m %y %u %s\n' | sort; }

# JSON without its spaces and line breaks, so that a check does not depend on
# the layout the tool chose.
compact() { tr -d ' \n'; }

# A fresh user: `quor-stdlib --json ensure` compiles nothing, status names the
# system layer, and the home is left exactly as it was: empty.
expect_user_served_by_the_system_cache() {
  local label=$1 before after result status
  new_home "$label"
  before=$(listing "$home")
  result=$(as_user "$root/usr/bin/quor-stdlib" --json ensure) \
    || { echo "$result"; fail "$label: quor-stdlib --json ensure failed for uid $user"; }
  echo "$result"
  result=$(echo "$result" | grep '"event":"result"' | compact)
  check "$label: a fresh user's ensure compiles nothing and builds nothing"
  echo "$result" | grep '"compiled":0[,}]' >/dev/null || fail "$label: ensure compiled units: $result"
  echo "$result" | grep '"bootstrapped":false[,}]' >/dev/null || fail "$label: ensure built: $result"
  status=$(as_user "$root/usr/bin/quor-stdlib" --json status) \
    || { echo "$status"; fail "$label: quor-stdlib --json status failed for uid $user"; }
  check "$label: status names the system layer, at $root/$cache"
  echo "$status" | compact | grep "\"layer\":{\"name\":\"system\",\"cacheRoot\":\"$root/$cache\"" \
    >/dev/null || fail "$label: status does not name the system layer: $status"
  echo "$status" | compact | grep '"ready":true[,}]' >/dev/null \
    || fail "$label: status does not call the cache ready: $status"
  after=$(listing "$home")
  check "$label: the home is as it was, empty"
  [ "$before" = "$after" ] || fail "$label: the home changed:
before:
$before
after:
$after"
  [ -z "$(find "$home" -mindepth 1)" ] || fail "$label: the home is not empty: $after"
}

# Installed with dpkg ----------------------------------------------------------
new_root
check "installing $deb with dpkg --root $root"
run_dpkg -i "$deb"
dpkg --root="$root" -s quor-bootstrap | grep -x 'Status: install ok installed' >/dev/null \
  || fail "dpkg does not call quor-bootstrap installed: $(dpkg --root="$root" -s quor-bootstrap)"
# dpkg keeps the package's file list and sums there, and its database format;
# a maintainer script or a conffile would add a file.
for entry in "$root"/var/lib/dpkg/info/*; do
  case ${entry##*/} in
    format | quor-bootstrap.list | quor-bootstrap.md5sums) ;;
    *) fail "the package has maintainer scripts or conffiles: ${entry##*/}" ;;
  esac
done
marker=$root/$cache/.first-launch/$version/lib/.quor-stdlib-ready
check "dpkg owns the system cache and its marker"
[ -f "$marker" ] || fail "no system cache marker at $marker"
owned=$(dpkg --root="$root" -L quor-bootstrap | grep -c "^/$cache/" || true)
shipped=$(cd "$root" && find "$cache" -mindepth 1 | wc -l)
if [ "$owned" -eq 0 ] || [ "$owned" -ne "$shipped" ]; then
  fail "dpkg lists $owned paths of the system cache, $shipped are installed"
fi
dpkg --root="$root" -S "/$cache/.first-launch/$version/lib/.quor-stdlib-ready" >/dev/null \
  || fail "dpkg does not own the marker"

expect_user_served_by_the_system_cache first

# The example driver, built against the installed package as a compiler
# project would build it, starts ready from the system cache as the user.
cp -r "$root/usr/share/doc/quor-bootstrap/examples" "$work/examples"
QUOR_PREFIX=$root/usr sh "$work/examples/driver/build.sh" >"$work/driver-build.log" 2>&1 \
  || { cat "$work/driver-build.log"; fail "the example driver does not build against the package"; }
chmod -R go+rX "$work/examples"
new_home driver
before=$(listing "$home")
as_user "$work/examples/driver/build/quorc" >"$work/driver.out" 2>"$work/driver.err" \
  || { cat "$work/driver.out" "$work/driver.err"; fail "the example driver failed for uid $user"; }
cat "$work/driver.out" "$work/driver.err"
check "the example driver starts without building, from the system cache"
! grep -e 'first start' -e 'building' -e 'units compiled' "$work/driver.err" >/dev/null \
  || fail "the driver built the library: $(cat "$work/driver.err")"
grep -x "quorc: precompiled in $root/$cache/$version/lib (system cache)" "$work/driver.out" >/dev/null \
  || fail "the driver does not use the system cache: $(cat "$work/driver.out")"
[ "$before" = "$(listing "$home")" ] || fail "the driver changed the home: $(listing "$home")"

# A container image with a site's library ----------------------------------------
# docs/embedding.md's recipe, run as the package's examples give it, in a
# mount namespace of its own whose /srv and /opt are empty and root's: root
# copies a site's edition of the library to /srv/site-lib and builds its system
# cache into /opt/site-cache with build-image-cache.sh; then a fresh user with
# container-env.sh's settings compiles nothing and writes nothing.
# The settings are sourced by the user's shell, whose own "$1" and "$2" name
# the file and the program: the single quotes are meant.
# shellcheck disable=SC2016
container_stage() {
  set -euo pipefail
  trap 'fail "container: line $LINENO: a command failed (status $?)"' ERR
  mount -t tmpfs -o mode=0755 quor-check-srv /srv
  mount -t tmpfs -o mode=0755 quor-check-opt /opt
  cp -r "$root/usr/share/quor/stdlib" /srv/site-lib
  echo '// the site edition' >>/srv/site-lib/Prelude.qr
  local examples=$root/usr/share/doc/quor-bootstrap/examples/container
  PATH=$root/usr/bin:$PATH sh "$examples/build-image-cache.sh" >"$work/site-cache.log" 2>&1 \
    || { cat "$work/site-cache.log"; fail "build-image-cache.sh failed"; }
  [ "$(stat -c %U /opt/site-cache)" = root ] || fail "/opt/site-cache is not root's"
  grep -x "fingerprint=$(cat /srv/site-lib/.quor-stdlib-fingerprint)" \
    /opt/site-cache/.first-launch/"$version"/lib/.quor-stdlib-ready >/dev/null \
    || fail "/opt/site-cache is not certified for the site's library"
  new_home container
  local before result status
  before=$(listing "$home")
  result=$(as_user sh -c '. "$1" && exec "$2" --json ensure' sh "$examples/container-env.sh" \
    "$root/usr/bin/quor-stdlib" | grep '"event":"result"' | compact)
  echo "$result"
  check "container: a fresh user with the container's settings compiles nothing"
  echo "$result" | grep '"compiled":0[,}]' >/dev/null || fail "container: ensure compiled units: $result"
  status=$(as_user sh -c '. "$1" && exec "$2" --json status' sh "$examples/container-env.sh" \
    "$root/usr/bin/quor-stdlib" | compact)
  check "container: status names the system layer at /opt/site-cache, for /srv/site-lib"
  echo "$status" | grep '"layer":{"name":"system","cacheRoot":"/opt/site-cache"' >/dev/null \
    || fail "container: status does not name /opt/site-cache: $status"
  echo "$status" | grep '"library":"/srv/site-lib"' >/dev/null \
    || fail "container: status does not name /srv/site-lib: $status"
  result=$(as_user sh -c '. "$1" && exec "$2"' sh "$examples/container-env.sh" "$driver" 2>&1)
  echo "$result"
  check "container: the example driver starts from /opt/site-cache"
  echo "$result" | grep -x "quorc: precompiled in /opt/site-cache/$version/lib (system cache)" >/dev/null \
    || fail "container: the driver does not use /opt/site-cache: $result"
  ! echo "$result" | grep -e 'first start' -e 'units compiled' >/dev/null \
    || fail "container: the driver built the library"
  [ "$before" = "$(listing "$home")" ] || fail "container: the home changed: $(listing "$home")"
}
command -v unshare >/dev/null || fail "unshare (util-linux) is needed for the container recipe"
driver=$work/examples/driver/build/quorc
export -f container_stage fail check new_home as_user listing compact
export root work version user driver
unshare --mount --propagation private bash -c container_stage \
  || fail "the container recipe of the guide does not work as shown"

# Purged -----------------------------------------------------------------------
check "purging: no file of the system cache is left"
run_dpkg --purge quor-bootstrap
[ ! -e "$root/$cache" ] || fail "the purge left the system cache: $(find "$root/$cache")"
[ ! -e "$root/usr/share/quor" ] || fail "the purge left $(find "$root/usr/share/quor")"

# Upgraded to a package of another library --------------------------------------
# The second package is the first with one unit edited, as if it had been built
# from another library: its fingerprint and its system cache are made again
# with its own tool, the way the installation makes them.
tree=$work/upgrade
dpkg-deb -R "$deb" "$tree"
unit=$tree/usr/share/quor/stdlib/Prelude.qr
cp "$unit" "$work/Prelude.qr.old"
sed -i 's/^public const PRELUDE_VERSION: Int = 1$/public const PRELUDE_VERSION: Int = 2/' "$unit"
! cmp -s "$unit" "$work/Prelude.qr.old" || fail "the unit to edit for the upgrade has changed; edit another"
"$tree/usr/bin/quor-stdlib" --quiet fingerprint --write "$tree/usr/share/quor/stdlib" >/dev/null
old_fingerprint=$(dpkg-deb --fsys-tarfile "$deb" \
  | tar -xOf - ./usr/share/quor/stdlib/.quor-stdlib-fingerprint)
new_fingerprint=$(cat "$tree/usr/share/quor/stdlib/.quor-stdlib-fingerprint")
[ "$old_fingerprint" != "$new_fingerprint" ] || fail "the edit did not change the fingerprint"
# The edit must reach the objects, or the check that none of the old ones
# is left could not tell them apart.
old_object=$(dpkg-deb --fsys-tarfile "$deb" | tar -xOf - "./$cache/$version/lib/Prelude.qo" | md5sum)
rm -rf "${tree:?}/$cache"
QUOR_SYSTEM_CACHE_DIR='' "$tree/usr/bin/quor-stdlib" --stdlib "$tree/usr/share/quor/stdlib" \
  --cache-root "$tree/$cache" --quiet ensure
rm -f "$tree/$cache"/.first-launch/*/.stdlib-bootstrap-*.lock
find "$tree/$cache" -type d -exec chmod 0755 {} +
find "$tree/$cache" -type f -exec chmod 0644 {} +
[ "$(md5sum <"$tree/$cache/$version/lib/Prelude.qo")" != "$old_object" ] \
  || fail "the edited unit compiles to the same object as before; edit it otherwise"
sed -i 's/^Version: .*/&+1/' "$tree/DEBIAN/control"
if [ -f "$tree/DEBIAN/md5sums" ]; then
  (cd "$tree" && find usr -type f | sort | xargs -d '\n' md5sum) >"$tree/DEBIAN/md5sums"
fi
upgrade=$work/quor-bootstrap_upgrade.deb
dpkg-deb --root-owner-group -b "$tree" "$upgrade" >/dev/null

new_root
check "installing the first package, then upgrading to $(dpkg-deb -f "$upgrade" Version)"
run_dpkg -i "$deb"
grep -x "fingerprint=$old_fingerprint" "$marker" >/dev/null \
  || fail "the first package's system cache is not certified for its library"
run_dpkg -i "$upgrade"
[ "$(dpkg-query --admindir="$root/var/lib/dpkg" -W -f='${Version}' quor-bootstrap)" \
  = "$(dpkg-deb -f "$upgrade" Version)" ] || fail "the upgrade is not the installed version"
check "after the upgrade: one marker, for the new library's fingerprint $new_fingerprint"
markers=$(find "$root/$cache" -name .quor-stdlib-ready)
[ "$(echo "$markers" | wc -l)" -eq 1 ] || fail "markers after the upgrade: $markers"
[ "$(grep '^fingerprint=' "$markers")" = "fingerprint=$new_fingerprint" ] \
  || fail "the marker is not for the new library: $(cat "$markers")"
check "after the upgrade: the system cache is exactly the new package's, nothing of the old one"
diff -r "$root/$cache" "$tree/$cache" >"$work/cache.diff" \
  || { cat "$work/cache.diff"; fail "the system cache differs from the new package's"; }
cmp -s "$root/$cache/$version/lib/Prelude.qo" "$tree/$cache/$version/lib/Prelude.qo" \
  || fail "the edited unit's object is not the new one"

expect_user_served_by_the_system_cache upgraded

echo "check-install: $deb installs, serves a fresh user without a build, purges and upgrades cleanly"
