// A C++ client that is linked with both libraries: it lets only errors be logged and prints what
// the storage holds.
#include <k9sys/k9sys.h>

#include <iostream>
#include <k9erepl/storage.hpp>

int main(int argc, char** argv) {
    K9SysSetLogLevels("error");
    const auto settings = k9erepl::Settings().File(argc > 1 ? argv[1] : "");
    const auto storage = k9erepl::Storage::Open(settings).Value();
    for (const k9erepl::Record& record : storage.Records()) {
        std::cout << record.Text() << '\n';
    }
}
