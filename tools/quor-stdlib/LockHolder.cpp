// Parses the kernel's lock table. A line reads, for a granted lock,
//     1: FLOCK  ADVISORY  WRITE 4711 fe:00:5308465 0 EOF
// and for a waiter the same with "->" after the ordinal. The device is two
// hexadecimal numbers (major:minor), the inode is decimal.

#include "LockHolder.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace quor::stdlibtool {

namespace {

struct TableEntry {
    pid_t pid = 0;
    unsigned long major = 0;
    unsigned long minor = 0;
    unsigned long long inode = 0;
};

bool parseEntry(const std::string& line, TableEntry& entry) {
    std::istringstream words(line);
    std::string ordinal, kind, mode, access, device;
    long pid = 0;
    if (!(words >> ordinal >> kind))
        return false;
    if (kind == "->")
        return false;
    if (!(words >> mode >> access >> pid >> device))
        return false;
    unsigned long major = 0, minor = 0;
    unsigned long long inode = 0;
    if (std::sscanf(device.c_str(), "%lx:%lx:%llu", &major, &minor, &inode) != 3)
        return false;
    entry = {static_cast<pid_t>(pid), major, minor, inode};
    return pid > 0;
}

std::string readWhole(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

} // namespace

std::optional<LockHolder> findLockHolder(const std::filesystem::path& file, pid_t self) {
    const std::string table = readWhole("/proc/locks");
    if (table.empty())
        return std::nullopt;
    return findLockHolder(file, self, table);
}

std::optional<LockHolder> findLockHolder(const std::filesystem::path& file, pid_t self,
                                         std::string_view lockTable) {
    struct stat info {};
    if (stat(file.c_str(), &info) != 0)
        return std::nullopt;
    std::optional<pid_t> exact, inodeOnly;
    std::istringstream lines{std::string(lockTable)};
    for (std::string line; std::getline(lines, line);) {
        TableEntry entry;
        if (!parseEntry(line, entry) || entry.pid == self ||
            entry.inode != static_cast<unsigned long long>(info.st_ino))
            continue;
        if (entry.major == major(info.st_dev) && entry.minor == minor(info.st_dev)) {
            exact = entry.pid;
            break;
        }
        if (!inodeOnly)
            inodeOnly = entry.pid;
    }
    const auto pid = exact ? exact : inodeOnly;
    if (!pid)
        return std::nullopt;
    return LockHolder{*pid, processCommand(*pid)};
}

std::string processCommand(pid_t pid) {
    const std::string base = "/proc/" + std::to_string(pid);
    std::string command = readWhole(base + "/cmdline");
    while (!command.empty() && command.back() == '\0')
        command.pop_back();
    for (char& c : command)
        if (c == '\0')
            c = ' ';
    if (command.empty()) {
        command = readWhole(base + "/comm");
        while (!command.empty() && (command.back() == '\n' || command.back() == '\0'))
            command.pop_back();
    }
    return command;
}

std::string describe(const LockHolder& holder) {
    std::string text = "process " + std::to_string(holder.pid);
    if (!holder.command.empty())
        text += " (" + holder.command + ")";
    return text;
}

} // namespace quor::stdlibtool
