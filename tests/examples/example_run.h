// One run of an example: its arguments in, its end and its output back.
#ifndef K9EREPL_TESTS_EXAMPLES_EXAMPLE_RUN_H
#define K9EREPL_TESTS_EXAMPLES_EXAMPLE_RUN_H

#include <string>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

struct ExampleRun {
    int exitStatus = 0;
    std::string out;
    std::string err;
};

// `arguments` begin with the program. Its output lies in `folder` meanwhile.
inline ExampleRun RunExample(const TempFolder& folder, std::vector<std::string> arguments) {
    ChildOptions options;
    options.arguments = std::move(arguments);
    options.environment = {"K9SYS_LOG", "K9SYS_LOG_FILE"};
    options.outputPath = folder.File("out");
    options.errorPath = folder.File("err");
    ChildProcess child(options);
    child.CloseInput();
    ExampleRun run;
    run.exitStatus = child.Wait().exitStatus;
    run.out = ReadText(options.outputPath);
    run.err = ReadText(options.errorPath);
    std::erase(run.out, '\r');  // where the C library ends lines of text so
    std::erase(run.err, '\r');
    return run;
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_EXAMPLES_EXAMPLE_RUN_H
