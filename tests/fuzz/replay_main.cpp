// Gives every file of the folders that it is called with to a fuzz target, in the order of their
// names: what the ordinary tests run of fuzzing. An input that goes wrong ends the process; its
// name was printed last.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "fuzz/target.h"

namespace {

namespace fs = std::filesystem;

std::set<fs::path> FilesIn(int count, char** folders) {
    std::set<fs::path> files;
    for (int i = 1; i < count; ++i) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folders[i])) {
            files.insert(entry.path());
        }
    }
    return files;
}

void Replay(const fs::path& path) {
    std::printf("%s\n", path.filename().string().c_str());
    std::fflush(stdout);
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    const std::set<fs::path> files = FilesIn(argc, argv);
    for (const fs::path& path : files) {
        Replay(path);
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
