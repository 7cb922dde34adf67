// Fuzz target: the reader of a library pack. The input is the bytes of a pack
// file from anywhere. decode() either refuses them with a reason, and never
// throws, or accepts them, and then the pack it read is one the writer accepts
// and writes back byte for byte: nothing the reader lets through can differ
// from what the writer would have written, so a signature over the signed
// text means the same to both. The signed text is then the input's prefix up
// to the objects, and each unit path is one the path rule accepts.

#include "compiler/LibraryPack.h"
#include "fuzz/FuzzCheck.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace pack = quor::compiler::pack;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    pack::Pack decoded;
    const std::string problem = pack::decode(bytes, decoded);
    if (!problem.empty()) {
        return 0;
    }
    QUOR_FUZZ_CHECK(pack::packProblem(decoded).empty());
    QUOR_FUZZ_CHECK(pack::encode(decoded) == bytes);
    const std::string signedText = pack::signedText(decoded);
    QUOR_FUZZ_CHECK(bytes.starts_with(signedText));
    QUOR_FUZZ_CHECK(pack::signedLength(bytes) == signedText.size());
    for (const pack::Unit& unit : decoded.units) {
        QUOR_FUZZ_CHECK(pack::unitPathProblem(unit.path).empty());
    }
    return 0;
}
