// The user's cache over a system cache, through the layer choice, the
// bootstrap and the real services: a fresh user is served by a ready system
// cache without a write, a user whose library differs compiles only the units
// the system cache has no sound object for, and a system cache that is
// damaged or cannot be trusted is never used as it stands and never lends an
// object that is not sound. The system cache is built by this process (root)
// and used by it or by a child that has become uid 65534.

#include "compiler/CacheLayers.h"
#include "compiler/BuildSession.h"
#include "compiler/Runtime.h"
#include "compiler/Sha256.h"
#include "compiler/SourceManager.h"
#include "compiler/StandardLibraryBootstrap.h"
#include "quor/Config.h"
#include "tests/services/ServicesTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using quor::compiler::BuildSession;
using quor::compiler::CacheLayerChoice;
using quor::compiler::CacheLayerKind;
using quor::compiler::chooseCacheLayer;
using quor::compiler::LayerProblem;
using quor::compiler::PrecompileSummary;
using quor::compiler::Runtime;
using quor::compiler::RuntimeConfiguration;
using quor::compiler::Sha256;
using quor::compiler::SourceManager;
using quor::compiler::StandardLibraryBootstrap;
using namespace quor::test;

Library sampleLibrary() {
    Library library;
    for (const char* path : {"Prelude.qr", "core/Int.qr", "core/Text.qr", "collections/List.qr",
                             "collections/Map.qr", "io/File.qr", "io/Path.qr"}) {
        library[path] = unitText(path);
    }
    return library;
}

// Every entry below `root` with its kind, mode, bytes and modification time:
// what a system cache that nobody wrote to still has after a build.
std::map<std::string, std::string> treeWithTimes(const fs::path& root) {
    std::map<std::string, std::string> tree = wholeTree(root);
    for (auto& [path, description] : tree) {
        struct stat info {};
        if (::lstat((root / path).c_str(), &info) == 0 && !S_ISDIR(info.st_mode)) {
            description += " @" + std::to_string(info.st_mtim.tv_sec) + "." +
                           std::to_string(info.st_mtim.tv_nsec);
        }
    }
    return tree;
}

class CacheLayersTest : public testing::Test {
public:
    void SetUp() override {
        SourceManager::instance().clear();
        // Others must be able to reach the caches: a child becomes uid 65534.
        ::chmod(directory_.path().c_str(), 0755);
    }
    void TearDown() override {
        Runtime::getInstance().configure({});
        SourceManager::instance().clear();
    }

    fs::path library() const { return directory_.path() / "stdlib"; }
    fs::path systemRoot() const { return directory_.path() / "system"; }
    fs::path userRoot() const { return directory_.path() / "user"; }
    fs::path libCache(const fs::path& root) const { return root / QUOR_COMPILER_VERSION / "lib"; }
    fs::path marker(const fs::path& root) const {
        return root / ".first-launch" / QUOR_COMPILER_VERSION / "lib" / ".quor-stdlib-ready";
    }

    // Builds `units` into `cacheRoot` with no system layer, as the package's
    // build does, and leaves out the build lock, which a read-only cache
    // never takes.
    void buildWithoutLayers(const Library& units, const fs::path& cacheRoot) {
        materialiseLibrary(library(), units);
        SourceManager::instance().clear();
        RuntimeConfiguration configuration{library().native(), cacheRoot.native(), 2};
        configuration.systemCacheRoot = "";
        Runtime::getInstance().configure(configuration);
        StandardLibraryBootstrap::ensure({});
        fs::remove(cacheRoot / ".first-launch" / QUOR_COMPILER_VERSION /
                   ".stdlib-bootstrap-lib.lock");
        Runtime::getInstance().configure({});
    }

    // The runtime of a user whose cache is userRoot() over systemRoot().
    static void configureLayers(const fs::path& libraryRoot, const fs::path& user,
                                const fs::path& system) {
        SourceManager::instance().clear();
        RuntimeConfiguration configuration{libraryRoot.native(), user.native(), 2};
        configuration.systemCacheRoot = system.native();
        Runtime::getInstance().configure(configuration);
    }

    struct Build {
        CacheLayerChoice choice;
        bool bootstrapped = false;
        PrecompileSummary summary;
    };

    // What a compiler start does: choose the layer, then ensure().
    Build startCompiler() {
        configureLayers(library(), userRoot(), systemRoot());
        Build build;
        build.choice = chooseCacheLayer();
        BuildSession session;
        const BuildSession::Scope scope(&session);
        build.bootstrapped = StandardLibraryBootstrap::ensure({}).bootstrapped;
        build.summary = session.summary();
        return build;
    }

    static const quor::compiler::PassedOverLayer* passedOverSystem(const CacheLayerChoice& choice) {
        for (const auto& layer : choice.passedOver) {
            if (layer.kind == CacheLayerKind::System) {
                return &layer;
            }
        }
        return nullptr;
    }

    // Any object of the system cache, by its path below the library cache.
    std::string someObject() const {
        for (const auto& entry : fs::recursive_directory_iterator(libCache(systemRoot()))) {
            if (entry.path().extension() == ".qo") {
                return entry.path().lexically_relative(libCache(systemRoot())).native();
            }
        }
        return {};
    }

    TemporaryDirectory directory_;
};

TEST_F(CacheLayersTest, AFreshUserIsServedByAReadySystemCacheWithoutAWrite) {
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    const fs::path home = directory_.path() / "home";
    fs::create_directory(home);
    giveToNobody(home.native());
    const fs::path user = home / ".cache" / "quor";
    const std::string system = systemRoot().native();
    const int status = runInChild([&] {
        quor::testsupport::becomeUser(quor::testsupport::kNobody);
        configureLayers(library(), user, systemRoot());
        const CacheLayerChoice choice = chooseCacheLayer();
        if (choice.inUse != CacheLayerKind::System || !choice.ready ||
            Runtime::getInstance().getCacheRoot() != system) {
            return 10;
        }
        if (StandardLibraryBootstrap::isRequired()) {
            return 11;
        }
        if (StandardLibraryBootstrap::ensure({}).bootstrapped) {
            return 12;
        }
        return fs::exists(home / ".cache") ? 13 : 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(fs::is_empty(home));
}

TEST_F(CacheLayersTest, TheUsersOwnReadyCacheComesFirst) {
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    buildWithoutLayers(units, userRoot());
    const Build build = startCompiler();
    EXPECT_EQ(build.choice.inUse, CacheLayerKind::User);
    EXPECT_TRUE(build.choice.ready);
    EXPECT_TRUE(build.choice.passedOver.empty());
    EXPECT_FALSE(build.bootstrapped);
}

TEST_F(CacheLayersTest, AnEmptySystemCacheRootTurnsTheLayerOff) {
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    {
        ScopedEnvironment environment("QUOR_SYSTEM_CACHE_DIR", "");
        RuntimeConfiguration configuration{library().native(), userRoot().native(), 2};
        Runtime::getInstance().configure(configuration);
        EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), "");
        const CacheLayerChoice choice = chooseCacheLayer();
        EXPECT_EQ(choice.inUse, CacheLayerKind::User);
        EXPECT_TRUE(choice.passedOver.empty());
        EXPECT_TRUE(choice.adoptionSource.empty());
    }
    {
        // The configuration outranks the environment, both ways.
        ScopedEnvironment environment("QUOR_SYSTEM_CACHE_DIR", systemRoot().c_str());
        RuntimeConfiguration configuration{library().native(), userRoot().native(), 2};
        Runtime::getInstance().configure(configuration);
        EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), systemRoot().native());
        configuration.systemCacheRoot = "";
        Runtime::getInstance().configure(configuration);
        EXPECT_EQ(Runtime::getInstance().getSystemCacheRoot(), "");
        EXPECT_EQ(chooseCacheLayer().inUse, CacheLayerKind::User);
    }
}

TEST_F(CacheLayersTest, AnEditedAndAnAddedUnitAreTheOnlyOnesCompiledAndTheRestIsAdopted) {
    Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    const auto systemBefore = treeWithTimes(systemRoot());
    units["core/Text.qr"] += "public fn edited() -> Int { return 2 }\n";
    units["core/Added.qr"] = unitText("core/Added.qr");
    materialiseLibrary(library(), units);

    const Build build = startCompiler();
    EXPECT_EQ(build.choice.inUse, CacheLayerKind::User);
    ASSERT_NE(passedOverSystem(build.choice), nullptr);
    EXPECT_EQ(passedOverSystem(build.choice)->problem, LayerProblem::NotReady);
    EXPECT_EQ(build.choice.adoptionSource, libCache(systemRoot()));
    EXPECT_TRUE(build.bootstrapped);
    EXPECT_EQ(build.summary.compiled, 2u);
    EXPECT_EQ(build.summary.adopted, units.size() - 2);
    EXPECT_EQ(build.summary.reused, 0u);

    // Names, kinds, modes and bytes of a clean build, and nothing written in
    // the system cache.
    const fs::path clean = directory_.path() / "clean";
    buildWithoutLayers(units, clean);
    EXPECT_EQ(wholeTree(libCache(userRoot())), wholeTree(libCache(clean)));
    EXPECT_EQ(treeWithTimes(systemRoot()), systemBefore);
}

// How a system cache is spoiled after it was built, and what the layer
// choice must then call it.
struct Damage {
    const char* name;
    LayerProblem problem;
    bool objectsStayAdoptable; // every object is still sound for the library
    std::function<void(CacheLayersTest&, const fs::path& system, const std::string& object)> apply;
};

void PrintTo(const Damage& damage, std::ostream* stream) {
    *stream << damage.name;
}

class SpoiledSystemCache : public CacheLayersTest, public testing::WithParamInterface<Damage> {};

TEST_P(SpoiledSystemCache, IsNeverUsedAsItStandsAndLendsNoUnsoundObject) {
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    const std::string object = someObject();
    ASSERT_FALSE(object.empty());
    GetParam().apply(*this, systemRoot(), object);
    materialiseLibrary(library(), units);

    const Build build = startCompiler();
    EXPECT_EQ(build.choice.inUse, CacheLayerKind::User);
    const auto* system = passedOverSystem(build.choice);
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(system->problem, GetParam().problem) << system->reason;
    EXPECT_FALSE(system->reason.empty());
    EXPECT_TRUE(build.bootstrapped);
    EXPECT_EQ(build.summary.compiled + build.summary.adopted, units.size());
    if (GetParam().objectsStayAdoptable) {
        EXPECT_EQ(build.summary.compiled, 0u);
    } else if (GetParam().problem == LayerProblem::Untrusted) {
        EXPECT_EQ(build.summary.adopted, 0u);
    } else {
        EXPECT_EQ(build.summary.compiled, 1u); // the spoiled object's unit
    }
    const fs::path clean = directory_.path() / "clean";
    buildWithoutLayers(units, clean);
    EXPECT_EQ(wholeTree(libCache(userRoot())), wholeTree(libCache(clean)));
}

void bumpTime(const fs::path& path) {
    // A later time than the marker's, whatever the clock's granularity.
    struct timespec times[2] = {{0, UTIME_OMIT}, {0, 0}};
    ::clock_gettime(CLOCK_REALTIME, &times[1]);
    times[1].tv_sec += 2;
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

INSTANTIATE_TEST_SUITE_P(
    Damages, SpoiledSystemCache,
    testing::Values(
        Damage{"TruncatedObject", LayerProblem::Changed, false,
               [](CacheLayersTest&, const fs::path& system, const std::string& object) {
                   const fs::path path = system / QUOR_COMPILER_VERSION / "lib" / object;
                   fs::resize_file(path, fs::file_size(path) / 2);
                   bumpTime(path);
               }},
        Damage{"EditedObject", LayerProblem::Changed, false,
               [](CacheLayersTest&, const fs::path& system, const std::string& object) {
                   const fs::path path = system / QUOR_COMPILER_VERSION / "lib" / object;
                   std::string bytes = readFile(path);
                   bytes[bytes.size() / 3] ^= 0x20;
                   writeFile(path, bytes);
                   bumpTime(path);
               }},
        Damage{"ObjectOfAnotherLibrary", LayerProblem::Changed, false,
               [](CacheLayersTest& test, const fs::path& system, const std::string& object) {
                   // The same unit, compiled from other bytes.
                   Library other = sampleLibrary();
                   for (auto& [path, text] : other) {
                       text += "public fn other() -> Int { return 3 }\n";
                   }
                   const fs::path elsewhere = system.parent_path() / "other";
                   test.buildWithoutLayers(other, elsewhere);
                   const fs::path path = system / QUOR_COMPILER_VERSION / "lib" / object;
                   fs::copy_file(elsewhere / QUOR_COMPILER_VERSION / "lib" / object, path,
                                 fs::copy_options::overwrite_existing);
                   bumpTime(path);
               }},
        Damage{"MarkerForAnotherIdentity", LayerProblem::NotReady, true,
               [](CacheLayersTest& test, const fs::path& system, const std::string&) {
                   const fs::path marker = test.marker(system);
                   std::string text = readFile(marker);
                   const std::size_t at = text.find("fingerprint=");
                   text.replace(at + 12, 64, std::string(64, 'a'));
                   writeFile(marker, text);
               }},
        Damage{"GroupWritableDirectory", LayerProblem::Untrusted, false,
               [](CacheLayersTest&, const fs::path& system, const std::string&) {
                   ::chmod((system / QUOR_COMPILER_VERSION).c_str(), 0775);
               }},
        Damage{"LinkPlantedOnItsLayout", LayerProblem::Untrusted, false,
               [](CacheLayersTest&, const fs::path& system, const std::string&) {
                   const fs::path lib = system / QUOR_COMPILER_VERSION / "lib";
                   const fs::path moved = system.parent_path() / "moved-lib";
                   fs::rename(lib, moved);
                   fs::create_directory_symlink(moved, lib);
               }},
        Damage{"LinkPlantedForAnObject", LayerProblem::Changed, false,
               [](CacheLayersTest&, const fs::path& system, const std::string& object) {
                   // A link to a sound copy: never followed, so its unit is compiled.
                   const fs::path path = system / QUOR_COMPILER_VERSION / "lib" / object;
                   const fs::path copy = system.parent_path() / "sound-copy.qo";
                   fs::copy_file(path, copy);
                   fs::remove(path);
                   fs::create_symlink(copy, path);
               }}),
    [](const testing::TestParamInfo<Damage>& info) { return std::string(info.param.name); });

TEST_F(CacheLayersTest, AnObjectWhoseTimeWasSetBackIsJudgedBeforeItIsAdopted) {
    // The time test of a ready system cache cannot see this; adoption can.
    Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    const std::string object = someObject();
    const fs::path path = libCache(systemRoot()) / object;
    struct stat before {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    std::string bytes = readFile(path);
    bytes[bytes.size() / 2] ^= 0x01;
    writeFile(path, bytes);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    units["Prelude.qr"] += "public fn edited() -> Int { return 2 }\n";
    materialiseLibrary(library(), units);

    const Build build = startCompiler();
    EXPECT_EQ(build.choice.inUse, CacheLayerKind::User);
    EXPECT_EQ(build.summary.compiled, object == "Prelude.qo" ? 1u : 2u);
    const fs::path clean = directory_.path() / "clean";
    buildWithoutLayers(units, clean);
    EXPECT_EQ(wholeTree(libCache(userRoot())), wholeTree(libCache(clean)));
}

TEST_F(CacheLayersTest, AMissingLibraryIsNeverServedByTheSystemCache) {
    // Without a library the identity falls back to what the build tree
    // records, which the system cache's marker may well name.
    buildWithoutLayers(sampleLibrary(), systemRoot());
    std::string recorded =
        readFile(fs::path(QUOR_BUILD_TREE_DIR) / "generated" / "quor-stdlib.fingerprint");
    recorded.resize(64);
    std::string text = readFile(marker(systemRoot()));
    text.replace(text.find("fingerprint=") + 12, 64, recorded);
    writeFile(marker(systemRoot()), text);
    configureLayers(directory_.path() / "no-such-library", userRoot(), systemRoot());
    const CacheLayerChoice choice = chooseCacheLayer();
    EXPECT_EQ(choice.inUse, CacheLayerKind::User);
    ASSERT_NE(passedOverSystem(choice), nullptr);
    EXPECT_NE(passedOverSystem(choice)->reason.find("was not found"), std::string::npos);
    EXPECT_THROW(StandardLibraryBootstrap::ensure({}), std::runtime_error);
}

TEST_F(CacheLayersTest, ThePrecompilerAdoptsNothingFromASourceItCannotTrust) {
    // Named directly, past the layer choice: the services check it themselves.
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    ::chmod(libCache(systemRoot()).c_str(), 0777);
    materialiseLibrary(library(), units);
    configureLayers(library(), userRoot(), "");
    Runtime::getInstance().setAdoptionSource(libCache(systemRoot()).native());
    BuildSession session;
    const BuildSession::Scope scope(&session);
    EXPECT_TRUE(StandardLibraryBootstrap::ensure({}).bootstrapped);
    EXPECT_EQ(session.summary().adopted, 0u);
    EXPECT_EQ(session.summary().compiled, units.size());
}

TEST_F(CacheLayersTest, AReadySystemCacheThatChangedIsNamedWithTheEntryAtFault) {
    const Library units = sampleLibrary();
    buildWithoutLayers(units, systemRoot());
    const fs::path fifo = libCache(systemRoot()) / "core" / "Odd.qo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    EXPECT_EQ(
        quor::compiler::libraryCacheChangeSinceMarker(libCache(systemRoot()), marker(systemRoot())),
        "'" + fifo.native() + "' is not a regular file");
    fs::remove(fifo);
    EXPECT_EQ(
        quor::compiler::libraryCacheChangeSinceMarker(libCache(systemRoot()), marker(systemRoot())),
        "");
}

} // namespace
