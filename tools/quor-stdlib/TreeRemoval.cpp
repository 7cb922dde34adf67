// The descriptor-relative removal `prune` uses to empty an old version's
// cache before the bootstrap removes the version itself.

#include "TreeRemoval.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace quor::stdlibtool {

namespace {

bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Empties and removes the folder `name` of `parent`. When `name` turns out
// not to be a folder after all (swapped for a file or a link since the
// listing), it is removed as what it is.
bool removeFolder(int parent, const char* name, const std::function<void()>& removedFile) {
    const int child = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (child < 0) {
        if (errno != ENOTDIR && errno != ELOOP)
            return false;
        if (::unlinkat(parent, name, 0) != 0)
            return false;
        removedFile();
        return true;
    }
    return emptyDirectory(child, removedFile) && ::unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

} // namespace

bool emptyDirectory(int directory, const std::function<void()>& removedFile) {
    DIR* listing = ::fdopendir(directory);
    if (listing == nullptr) {
        ::close(directory); // opened only to list it: closing loses nothing
        return false;
    }
    const int fd = ::dirfd(listing);
    bool empty = true;
    errno = 0;
    // Each entry is removed as soon as it is returned. POSIX leaves open only
    // whether an entry removed or added after the listing began is returned
    // itself, so the others still come; anything created meanwhile is left
    // for the caller's removal, which goes over the tree once more.
    while (const dirent* entry = ::readdir(listing)) {
        const char* name = entry->d_name;
        if (isDotOrDotDot(name))
            continue;
        // d_type saves a stat per entry; a file system that does not fill it
        // in (DT_UNKNOWN) gets an unlink first, which a folder refuses.
        bool removed;
        if (entry->d_type == DT_DIR) {
            removed = removeFolder(fd, name, removedFile);
        } else if (::unlinkat(fd, name, 0) == 0) {
            removedFile();
            removed = true;
        } else {
            removed = (errno == EISDIR || errno == EPERM) && removeFolder(fd, name, removedFile);
        }
        if (!removed) {
            empty = false;
            break;
        }
        errno = 0;
    }
    if (empty && errno != 0)
        empty = false; // the listing itself failed
    ::closedir(listing);
    return empty;
}

} // namespace quor::stdlibtool
