// The entry point of a fuzz target built without libFuzzer: it runs every
// file named on the command line (a directory stands for the files in it, in
// name order) through the target's LLVMFuzzerTestOneInput once. That is how CI
// replays the committed corpora with any compiler, sanitizers or not. A failed
// property aborts the process, so a regression input fails the test that
// replays it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// Reads `file` whole; false when it cannot be read, which fails the replay: a
// corpus that cannot be read is not replayed, and that must not pass quietly.
bool readFile(const fs::path& file, std::vector<std::uint8_t>& bytes) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    return !stream.bad();
}

} // namespace

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path argument(argv[i]);
        std::error_code error;
        if (fs::is_directory(argument, error)) {
            std::vector<fs::path> files;
            for (const fs::directory_entry& entry : fs::directory_iterator(argument)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else {
            inputs.push_back(argument);
        }
    }
    if (inputs.empty()) {
        std::cerr << "usage: " << argv[0] << " FILE-OR-DIRECTORY...\n"
                  << "no input to replay\n";
        return 2;
    }
    std::vector<std::uint8_t> bytes;
    for (const fs::path& input : inputs) {
        if (!readFile(input, bytes)) {
            std::cerr << "cannot read " << input.native() << "\n";
            return 1;
        }
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::cout << "replayed " << inputs.size() << " inputs\n";
    return 0;
}
