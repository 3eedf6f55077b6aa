// Opens the empty device, in the direction that the stream is not used in.
#include "standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

namespace k9repl {

void PrepareStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            // The lowest free descriptor, which is this one.
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

}  // namespace k9repl
