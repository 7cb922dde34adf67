// Which cache serves this compiler: the user's own, or the system cache that
// the package ships ready (docs/embedding.md, "The cache layers").
//
// The runtime resolves where both caches are; the bootstrap decides, by its
// own readiness marker and identity, whether one of them is ready. This layer
// sits above both and asks each: the user's cache first, then the system's,
// and points the runtime at the first one that is ready, so that isRequired()
// and ensure() answer for it without a write. When neither is ready the
// runtime stays on the user's cache, where ensure() builds, and the system
// cache, when it can be trusted, is named to the precompiler as a source of
// objects to adopt instead of compiling them.
//
// A system cache is used as it stands only when the library exists and three
// things hold: the cache trust rules vouch for it (compiler/CacheTrust.h:
// root's, closed to others' writes, no link on its layout), the bootstrap
// finds its marker valid for this compiler and library, and nothing in its
// library cache changed
// after the marker was written: every entry is a folder or a regular file and
// no file is newer than the marker. The last is a test of the file system's
// times, not of the bytes: it catches an object that was truncated, edited or
// replaced after the build, at the cost of one status per object, but not one
// whose time was set back on purpose. `quor-stdlib verify` judges every
// object; adoption judges each one it takes.
//
// Thread safety: chooseCacheLayer() reconfigures the process-wide runtime;
// call it where Runtime::configure() may be called, before other threads use
// the runtime.

#ifndef QUOR_COMPILER_CACHELAYERS_H
#define QUOR_COMPILER_CACHELAYERS_H

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quor::compiler {

enum class CacheLayerKind {
    User,   // the user's own cache: built, pruned and cleaned by the user
    System, // root's cache of the installed library: used as it stands
};

// "user", "system".
std::string_view cacheLayerName(CacheLayerKind kind);

// Why a layer was passed over.
enum class LayerProblem {
    NotReady,   // no valid marker for this compiler and library (or no cache at all)
    Untrusted,  // the cache trust rules refuse it
    Unreadable, // it could not be examined
    Changed,    // its library cache changed after its marker was written
};

// "not-ready", "untrusted", "unreadable", "changed".
std::string_view layerProblemName(LayerProblem problem);

struct PassedOverLayer {
    CacheLayerKind kind = CacheLayerKind::User;
    std::filesystem::path cacheRoot;
    LayerProblem problem = LayerProblem::NotReady;
    std::string reason; // a sentence: what is wrong, with the path concerned
};

struct CacheLayerChoice {
    CacheLayerKind inUse = CacheLayerKind::User; // where the runtime now points
    std::filesystem::path cacheRoot;             // the cache root of that layer
    bool ready = false;                          // it is ready as it stands
    // The library cache the precompiler may adopt objects from, or empty.
    std::filesystem::path adoptionSource;
    // The layers looked at before the one in use, or instead of it, in the
    // order they were looked at.
    std::vector<PassedOverLayer> passedOver;
};

// Looks at the runtime's user cache and then its system cache, points the
// runtime at the first one that is ready (Runtime::useCacheRoot()), and names
// the adoption source (Runtime::setAdoptionSource()). With the system layer
// off, or the same root for both, only the user's cache is looked at. Call it
// after Runtime::configure() and before isRequired() or ensure(). Never
// throws for trouble with a cache: a layer that cannot be used is passed over
// with its reason, and the user's cache is always the last resort.
CacheLayerChoice chooseCacheLayer();

// Whether `cacheRoot` is the runtime's system cache root (the same directory,
// by name or by inode). False when the system layer is off.
bool isSystemCacheRoot(const std::filesystem::path& cacheRoot);

// For a caller that must build although a layer is ready (a rebuild that
// checks every object, as `quor-stdlib ensure --force` asks): points the
// runtime back at the user's cache, and when the layer in use was the system
// cache, names it as the adoption source. Updates `choice` to match.
void buildInUserCache(CacheLayerChoice& choice);

// Whether the library cache `libraryCache` is as its readiness marker `marker`
// found it: every entry below it is a folder or a regular file, and no file is
// newer than the marker. Returns an empty string when it is, else the reason
// it is not, naming the first entry found at fault. Links are never followed.
std::string libraryCacheChangeSinceMarker(const std::filesystem::path& libraryCache,
                                          const std::filesystem::path& marker);

} // namespace quor::compiler

#endif
