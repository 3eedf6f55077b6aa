// A process of its own for the tests of process atoms: `atom_probe COMMAND NAME` exits with 1 when
// it finds the atom NAME, and with 0 when it does not.
//   find             looks
//   find-itself      adds the atom and looks
//   find-after-exec  adds the atom, starts the program anew in the same process, and looks
#include <unistd.h>

#include <cstring>

#include "platform/process.h"

int main(int argc, char** argv) {
    constexpr int kWrongUse = 2;
    if (argc != 3) {
        return kWrongUse;
    }
    if (std::strcmp(argv[1], "find") != 0 && k9erepl::platform::AddProcessAtom(argv[2]) == 0) {
        return kWrongUse;
    }
    if (std::strcmp(argv[1], "find-after-exec") == 0) {
        execl("/proc/self/exe", argv[0], "find", argv[2], nullptr);
        return kWrongUse;
    }
    return k9erepl::platform::FindProcessAtom(argv[2]) != 0 ? 1 : 0;
}
