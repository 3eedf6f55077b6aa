// Writes the portable storages, checks those that another build has written, and tells whether
// their files are alike. scripts/cross-read.sh runs it; a developer may, too.
//
//   portable_storage write FOLDER     writes them into an empty folder, which it makes
//   portable_storage check FOLDER     loads copies of them, reads every byte, appends
//   portable_storage digest FOLDER    prints a line "SUM SIZE NAME" for each file, stamps left out
//
// Exit status: 0; 1 when something failed or is not as it should be, which standard error tells; 2
// for wrong usage.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "portability/portable.h"

namespace {

using namespace k9erepl::portable;

int Run(const std::string& command, const std::string& folder) {
    if (command == "write") {
        std::filesystem::create_directories(folder);
        WriteAll(folder);
    } else if (command == "check") {
        for (const Content& content : Contents()) {
            CheckWithIndex(content, folder);
            CheckWithoutIndex(content, folder);
            CheckAppending(content, folder);
        }
    } else if (command == "digest") {
        for (const std::string& name : FileNames()) {
            std::printf("%s %s\n", Digest(ReadFile(folder + "/" + name)).c_str(), name.c_str());
        }
    } else {
        (void)std::fprintf(stderr, "portable_storage: unknown command '%s'\n", command.c_str());
        return 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        (void)std::fprintf(stderr, "usage: portable_storage write|check|digest FOLDER\n");
        return 2;
    }
    try {
        return Run(argv[1], argv[2]);
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "portable_storage: %s\n", failure.what());
        return 1;
    }
}
