// The compiler services the standard-library bootstrap relies on: the version
// of the object format, the object-ABI cache check, and the batch precompiler
// that turns ".qr" units into objects in the library cache.

#ifndef QUOR_COMPILER_COMPILER_H
#define QUOR_COMPILER_COMPILER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quor::compiler {

// The compilation context of a whole compiler session. The precompiler uses a
// default context of its own when it is handed an empty pointer.
class Context;

class Compiler {
public:
    // Passed to the precompiler's progress function once per unit handled.
    struct CompilationProgress {
        std::size_t completed = 0; // units finished so far in this run
        std::size_t total = 0;     // units in this run
        std::string sourcePath;    // the unit, exactly as it was named in `sources`
    };

    Compiler() = delete;

    // The version of the compiled-object format, which the object format's own
    // module keeps (compiler/ObjectFormat.h). The same value for the whole
    // life of the process.
    static int objectAbiVersion();

    // Makes the library cache consistent with objectAbiVersion(): objects that
    // were written for another ABI are removed. Throws std::runtime_error when the
    // cache cannot be inspected or cleaned.
    static void ensureObjectAbiCacheCurrent();

    // Compiles every unit in `sources` into the library cache. `onProgress` is
    // called on the calling thread, once per finished unit. Returns normally only
    // when every unit was compiled and its object is durable on disk; any failure,
    // including one thrown by `onProgress`, is thrown after every worker stopped.
    static void
    precompileSources(const std::vector<std::string>& sources, std::shared_ptr<Context> context,
                      const std::function<void(const CompilationProgress&)>& onProgress);
};

} // namespace quor::compiler

#endif
