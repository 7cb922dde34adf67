// The scratch layout most bootstrap tests share: a standard library at
// <tmp>/std with a valid installed fingerprint, and a cache root <tmp>/cache
// whose branch is <tmp>/cache/<version> and library cache <branch>/lib, all
// handed to the fake runtime.

#ifndef QUOR_TESTS_BOOTSTRAP_BOOTSTRAPFIXTURE_H
#define QUOR_TESTS_BOOTSTRAP_BOOTSTRAPFIXTURE_H

#include "compiler/StandardLibraryBootstrap.h"
#include "compiler/StandardLibraryCacheState.h"
#include "quor/Config.h"
#include "tests/bootstrap/FakeServices.h"
#include "tests/bootstrap/TestSupport.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace quor::testing {

inline const std::string kVersion = QUOR_COMPILER_VERSION;
inline const std::string kFingerprint =
    "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

class BootstrapTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetFakes();
        buildTree.emplace(buildTreeMode());
        root = temp.path();
        stdlib = root / "std";
        cacheRoot = root / "cache";
        branch = cacheRoot / kVersion;
        lib = branch / "lib";
        setStandardLibraryPath(stdlib.native());
        setCacheBranchPath(branch.native());
        setLibCachePath(lib.native());
        setObjectAbiVersion(3);
        installFingerprint(kFingerprint + "\n");
    }

    void TearDown() override { resetFakes(); }

    virtual BuildTreeFingerprint::Mode buildTreeMode() const {
        return BuildTreeFingerprint::Mode::Shared;
    }

    void installFingerprint(const std::string& bytes) {
        writeFile(stdlib / ".quor-stdlib-fingerprint", bytes);
    }

    void writeUnit(const std::string& relative, const std::string& text) {
        writeFile(stdlib / relative, text);
    }

    static std::string s(const fs::path& path) { return path.native(); }

    fs::path stateDir() const { return cacheRoot / ".first-launch" / kVersion / "lib"; }
    fs::path markerPath() const { return stateDir() / ".quor-stdlib-ready"; }
    fs::path lockDir() const { return cacheRoot / ".first-launch" / kVersion; }
    fs::path lockFile() const { return lockDir() / ".stdlib-bootstrap-lib.lock"; }

    compiler::StandardLibraryCacheState expectedState(int abi = 3) const {
        return compiler::StandardLibraryCacheState(stateDir(), kVersion, abi, kFingerprint);
    }

    // The fingerprint line of the marker that ensure() published.
    std::string markerFingerprintLine() const {
        const std::string marker = readFile(markerPath());
        const auto start = marker.find("fingerprint=");
        if (start == std::string::npos) {
            return "<no fingerprint line>";
        }
        return marker.substr(start, marker.find('\n', start) - start);
    }

    TemporaryDirectory temp;
    std::optional<BuildTreeFingerprint> buildTree;
    fs::path root;
    fs::path stdlib;
    fs::path cacheRoot;
    fs::path branch;
    fs::path lib;
};

} // namespace quor::testing

#endif
