#!/bin/sh
# Run as root while a container image is built, once the package is installed
# and the site's own copy of the standard library is in /srv/site-lib: records
# that library's fingerprint and precompiles it into a system cache of root's,
# /opt/site-cache, so that every container started from the image finds it
# ready and builds nothing. The containers take container-env.sh's settings.
# The system layer is off while the cache is built (an empty
# QUOR_SYSTEM_CACHE_DIR): the cache being built is the one named, as a user's
# cache would be, and nothing is adopted from another.
set -eu
quor-stdlib fingerprint --write /srv/site-lib
QUOR_SYSTEM_CACHE_DIR= quor-stdlib --stdlib /srv/site-lib --cache-root /opt/site-cache ensure
