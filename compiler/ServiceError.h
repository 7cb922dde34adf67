// The failures the compiler services throw, sorted by what they are about, so
// that a caller (the tool's JSON `kind`, an IDE) tells them apart by type and
// never by the words of a message, which may be reworded.
//
// Every one derives from std::runtime_error through ServiceError, so a caller
// that catches std::runtime_error or std::exception still catches them all.
// The messages themselves are documented in docs/errors.md.
//
// Header only: a program that links the bootstrap against services of its own
// may throw these without linking this project's services.

#ifndef QUOR_COMPILER_SERVICEERROR_H
#define QUOR_COMPILER_SERVICEERROR_H

#include <stdexcept>
#include <string>

namespace quor::compiler {

class ServiceError : public std::runtime_error {
public:
    enum class Category {
        FileSystem, // a path could not be read, written, created, removed, synced or found
        Untrusted,  // a cache path someone else could change, or one that is not what it must be
        Source,     // a unit of the library is not valid Quor
        Stopped,    // the caller stopped the build's reads (BuildSession::stopReads)
        Internal,   // a broken promise between the bootstrap and the services
    };

    ServiceError(Category category, const std::string& message)
        : std::runtime_error(message), category_(category) {}

    Category category() const noexcept { return category_; }

private:
    Category category_;
};

// A path of the library or the cache could not be read, written, created,
// removed, synced or found; or the library cache went away under a build.
class CacheIoError : public ServiceError {
public:
    explicit CacheIoError(const std::string& message)
        : ServiceError(Category::FileSystem, message) {}
};

// A unit breaks a rule of the language: "<unit>:<line>:<column>: <what>".
class UnitSourceError : public ServiceError {
public:
    explicit UnitSourceError(const std::string& message)
        : ServiceError(Category::Source, message) {}
};

// The services were handed what the bootstrap never hands them, or their
// workers ended without an answer.
class ServiceInternalError : public ServiceError {
public:
    explicit ServiceInternalError(const std::string& message)
        : ServiceError(Category::Internal, message) {}
};

} // namespace quor::compiler

#endif
