# The environment of the containers started from an image that
# build-image-cache.sh prepared: the site's library, and its system cache in
# place of the package's. Each user's own cache still comes first when it is
# ready; it never is in a fresh container, so /opt/site-cache serves.
export QUOR_STDLIB_PATH=/srv/site-lib QUOR_SYSTEM_CACHE_DIR=/opt/site-cache
