// Every public header in the form that cannot collide with a consumer's own
// "compiler/" folder: <quor/compiler/...>. main.cpp uses the other form.

#include <quor/compiler/CacheLayers.h>
#include <quor/compiler/CacheTrust.h>
#include <quor/compiler/Compiler.h>
#include <quor/compiler/Runtime.h>
#include <quor/compiler/SourceManager.h>
#include <quor/compiler/StandardLibraryBootstrap.h>
#include <quor/compiler/StandardLibraryCacheState.h>
#include <quor/compiler/source/TypeHeader.h>

bool consumerIsRequired() {
    return quor::compiler::StandardLibraryBootstrap::isRequired();
}
