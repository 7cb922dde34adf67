// `quor-stdlib fingerprint [DIR] [--write]`: the fingerprint of a library's
// sources, and with --write the file that makes the bootstrap use it. A library
// given with --stdlib or QUOR_STDLIB_PATH that carries no fingerprint of its
// own is otherwise judged by the build tree's, which describes another tree:
// edits to it would never cause a rebuild.

#include "CacheProbe.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "JsonText.h"
#include "LibraryFingerprint.h"

#include "compiler/ObjectCache.h"
#include "compiler/Runtime.h"

#include <nlohmann/json.hpp>

#include <cstring>
#include <stdexcept>

namespace quor::stdlibtool {

int runFingerprint(const Invocation& invocation, Console& console) {
    try {
        // DIR stands for --stdlib, so that the fingerprint the bootstrap would
        // use for it is the one compared below.
        Invocation configured = invocation;
        if (!invocation.fingerprint.directory.empty())
            configured.global.standardLibraryPath = invocation.fingerprint.directory;
        configureRuntime(configured);
        const std::filesystem::path library =
            compiler::Runtime::getInstance().getStandardLibraryPath();
        const LibraryFingerprint fingerprint = computeLibraryFingerprint(library);
        const std::filesystem::path file = installedFingerprintFile(library);
        // The file the bootstrap would read now: rewritten only when it says
        // something else, so that its time stamp moves only with the library.
        const std::string recorded = readFingerprintFile(file);
        const bool current = recorded == fingerprint.value;
        bool written = false;
        if (invocation.fingerprint.write && !current) {
            if (const int error = compiler::writeFileAtomically(file, fingerprint.value + "\n"))
                throw ToolError(kind::io, "Unable to write the fingerprint file '" + file.string() +
                                              "': " + std::strerror(error));
            written = true;
        }

        auto& out = console.out();
        if (invocation.global.json) {
            out << jsonText(nlohmann::ordered_json{
                       {"library", library.string()},
                       {"fingerprint", fingerprint.value},
                       {"units", fingerprint.units},
                       {"file", file.string()},
                       {"recorded", recorded.empty() ? nlohmann::ordered_json()
                                                     : nlohmann::ordered_json(recorded)},
                       {"written", written}})
                << std::endl;
        } else {
            // The value alone on standard output, for $(quor-stdlib fingerprint).
            out << fingerprint.value << std::endl;
            if (!invocation.global.quiet) {
                if (written)
                    console.note("wrote " + file.string());
                else if (invocation.fingerprint.write)
                    console.note(file.string() + " is up to date");
                else if (const std::string mismatch =
                             fingerprintMismatch(currentIdentity(), fingerprint, library);
                         !mismatch.empty())
                    console.note(mismatch);
            }
        }
        return console.finish(ExitSuccess, written ? "the fingerprint file was written"
                                                   : "the fingerprint was computed");
    } catch (const std::exception& failure) {
        reportFailure(console, invocation.global.json, failure, ExitFailure);
        return ExitFailure;
    }
}

} // namespace quor::stdlibtool
