/* An LD_PRELOAD library for the tests that watch how the services write the
 * library cache: which renames and syncs happen in which order, and what is
 * left behind when a write or a rename fails. A test cannot observe either
 * from outside the process: a build without its syncfs() leaves the same
 * files behind, and a full disk or a failing rename cannot be had on demand.
 *
 * Configured through the environment of the process it is loaded into:
 *
 *   QUOR_IO_SHIM_LOG=<file>          appends one line per successful syncfs(),
 *                                    fsync(), fdatasync(), rename and unlink,
 *                                    in the order they return:
 *                                    "syncfs <directory>", "fsync <path>",
 *                                    "rename <from> <to>" and "unlink <path>"
 *   QUOR_IO_SHIM_FAIL_WRITE=<text>   write(), pwrite() and writev() on a file
 *                                    whose path contains <text> fail with
 *                                    ENOSPC, as on a full disk
 *   QUOR_IO_SHIM_FAIL_RENAME=<text>  a rename whose source path contains
 *                                    <text> fails with EIO
 *   QUOR_IO_SHIM_REPLACE_AFTER_SYNCFS=<directory>
 *                                    once a syncfs() returns, <directory> is
 *                                    moved aside to <directory>.replaced and
 *                                    <directory>.replacement moved in its
 *                                    place (an empty directory made there when
 *                                    there is none), as another process's
 *                                    clean and rebuild would at that moment
 *
 * Everything else goes to the next definition (libc's) unchanged. Each log
 * line is one write() on an O_APPEND descriptor, so that the lines of
 * concurrent threads never interleave. */

#define _GNU_SOURCE

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

typedef ssize_t (*WriteFunction)(int, const void*, size_t);
typedef ssize_t (*PwriteFunction)(int, const void*, size_t, off_t);
typedef ssize_t (*WritevFunction)(int, const struct iovec*, int);
typedef int (*RenameFunction)(const char*, const char*);
typedef int (*RenameatFunction)(int, const char*, int, const char*);
typedef int (*Renameat2Function)(int, const char*, int, const char*, unsigned int);
typedef int (*SyncfsFunction)(int);
typedef int (*FsyncFunction)(int);
typedef int (*UnlinkFunction)(const char*);
typedef int (*UnlinkatFunction)(int, const char*, int);

/* The definition this library hides, looked up on every call: dlsym() is
 * cheap next to the I/O, and a lookup kept in a static would have to be
 * shared between threads. Copied through memcpy() because ISO C has no
 * conversion from dlsym()'s object pointer to a function pointer. */
static void nextDefinition(const char* name, void* function, size_t size) {
    void* found = dlsym(RTLD_NEXT, name);
    if (found == NULL) {
        abort(); /* nothing sensible can follow without the real call */
    }
    memcpy(function, &found, size);
}

static WriteFunction realWrite(void) {
    WriteFunction function;
    nextDefinition("write", &function, sizeof function);
    return function;
}

/* The path `fd` was opened with, as /proc shows it, or "" when unknown. */
static void pathOfDescriptor(int fd, char* path, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, size - 1);
    path[length > 0 ? (size_t)length : 0] = '\0';
}

/* `path` as seen from `directory` (a descriptor or AT_FDCWD), made absolute
 * when it is relative to a descriptor, so that the log names whole paths. */
static void pathFrom(int directory, const char* path, char* whole, size_t size) {
    if (path[0] == '/' || directory == AT_FDCWD) {
        snprintf(whole, size, "%s", path);
        return;
    }
    char base[PATH_MAX];
    pathOfDescriptor(directory, base, sizeof base);
    if (snprintf(whole, size, "%s/%s", base, path) >= (int)size) {
        /* Longer than any path the kernel takes: the call itself will fail. */
        snprintf(whole, size, "%s", path);
    }
}

static int contains(const char* text, const char* variable) {
    const char* wanted = getenv(variable);
    return wanted != NULL && wanted[0] != '\0' && strstr(text, wanted) != NULL;
}

static int failsWrite(int fd) {
    if (getenv("QUOR_IO_SHIM_FAIL_WRITE") == NULL) {
        return 0;
    }
    char path[PATH_MAX];
    pathOfDescriptor(fd, path, sizeof path);
    return contains(path, "QUOR_IO_SHIM_FAIL_WRITE");
}

static void logLine(const char* first, const char* second, const char* third) {
    const char* log = getenv("QUOR_IO_SHIM_LOG");
    if (log == NULL || log[0] == '\0') {
        return;
    }
    char line[3 * PATH_MAX + 8];
    const int length = third != NULL
                           ? snprintf(line, sizeof line, "%s %s %s\n", first, second, third)
                           : snprintf(line, sizeof line, "%s %s\n", first, second);
    const int saved = errno; /* the caller sees the errno of its own call */
    const int fd = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
        const size_t size = length < (int)sizeof line ? (size_t)length : sizeof line - 1;
        (void)realWrite()(fd, line, size); /* a lost line shows as a failed order check */
        close(fd);
    }
    errno = saved;
}

ssize_t write(int fd, const void* data, size_t size) {
    if (failsWrite(fd)) {
        errno = ENOSPC;
        return -1;
    }
    return realWrite()(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    if (failsWrite(fd)) {
        errno = ENOSPC;
        return -1;
    }
    PwriteFunction function;
    nextDefinition("pwrite", &function, sizeof function);
    return function(fd, data, size, offset);
}

ssize_t writev(int fd, const struct iovec* vectors, int count) {
    if (failsWrite(fd)) {
        errno = ENOSPC;
        return -1;
    }
    WritevFunction function;
    nextDefinition("writev", &function, sizeof function);
    return function(fd, vectors, count);
}

/* A rename of any of the three kinds, as one record. */
struct Rename {
    int fromDirectory;
    const char* from;
    int toDirectory;
    const char* to;
    unsigned int flags;
};

static int callRename(const struct Rename* call) {
    RenameFunction function;
    nextDefinition("rename", &function, sizeof function);
    return function(call->from, call->to);
}

static int callRenameat(const struct Rename* call) {
    RenameatFunction function;
    nextDefinition("renameat", &function, sizeof function);
    return function(call->fromDirectory, call->from, call->toDirectory, call->to);
}

static int callRenameat2(const struct Rename* call) {
    Renameat2Function function;
    nextDefinition("renameat2", &function, sizeof function);
    return function(call->fromDirectory, call->from, call->toDirectory, call->to, call->flags);
}

/* Fails `call` when asked to, otherwise makes it through `real` and logs it
 * when it worked. */
static int renameThrough(const struct Rename* call, int (*real)(const struct Rename*)) {
    char from[PATH_MAX];
    char to[PATH_MAX];
    pathFrom(call->fromDirectory, call->from, from, sizeof from);
    pathFrom(call->toDirectory, call->to, to, sizeof to);
    if (contains(from, "QUOR_IO_SHIM_FAIL_RENAME")) {
        errno = EIO;
        return -1;
    }
    const int result = real(call);
    if (result == 0) {
        logLine("rename", from, to);
    }
    return result;
}

int rename(const char* from, const char* to) {
    const struct Rename call = {AT_FDCWD, from, AT_FDCWD, to, 0};
    return renameThrough(&call, callRename);
}

int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) {
    const struct Rename call = {fromDirectory, from, toDirectory, to, 0};
    return renameThrough(&call, callRenameat);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned int flags) {
    const struct Rename call = {fromDirectory, from, toDirectory, to, flags};
    return renameThrough(&call, callRenameat2);
}

/* The other process of QUOR_IO_SHIM_REPLACE_AFTER_SYNCFS. The new directory
 * exists while the old one still does, so the two can never share an inode
 * number. */
static void replaceAfterSyncfs(void) {
    const char* directory = getenv("QUOR_IO_SHIM_REPLACE_AFTER_SYNCFS");
    if (directory == NULL || directory[0] == '\0') {
        return;
    }
    char aside[PATH_MAX];
    char replacement[PATH_MAX];
    if (snprintf(aside, sizeof aside, "%s.replaced", directory) >= (int)sizeof aside ||
        snprintf(replacement, sizeof replacement, "%s.replacement", directory) >=
            (int)sizeof replacement) {
        return;
    }
    const int saved = errno;
    RenameFunction function;
    nextDefinition("rename", &function, sizeof function);
    /* A failure of either step shows as a failed test. */
    if (function(directory, aside) == 0 && function(replacement, directory) != 0) {
        (void)mkdir(directory, 0755);
    }
    errno = saved;
}

int syncfs(int fd) {
    SyncfsFunction function;
    nextDefinition("syncfs", &function, sizeof function);
    const int result = function(fd);
    if (result == 0) {
        char path[PATH_MAX];
        pathOfDescriptor(fd, path, sizeof path);
        logLine("syncfs", path, NULL);
        replaceAfterSyncfs();
    }
    return result;
}

/* fsync() and fdatasync() log alike: either makes what the descriptor names
 * durable, which is all the order checks ask. */
static int syncThrough(const char* name, int fd) {
    FsyncFunction function;
    nextDefinition(name, &function, sizeof function);
    const int result = function(fd);
    if (result == 0) {
        char path[PATH_MAX];
        pathOfDescriptor(fd, path, sizeof path);
        logLine("fsync", path, NULL);
    }
    return result;
}

int fsync(int fd) {
    return syncThrough("fsync", fd);
}

int fdatasync(int fd) {
    return syncThrough("fdatasync", fd);
}

int unlink(const char* path) {
    UnlinkFunction function;
    nextDefinition("unlink", &function, sizeof function);
    const int result = function(path);
    if (result == 0) {
        logLine("unlink", path, NULL);
    }
    return result;
}

int unlinkat(int directory, const char* path, int flags) {
    char whole[PATH_MAX];
    pathFrom(directory, path, whole, sizeof whole);
    UnlinkatFunction function;
    nextDefinition("unlinkat", &function, sizeof function);
    const int result = function(directory, path, flags);
    if (result == 0) {
        logLine("unlink", whole, NULL);
    }
    return result;
}
