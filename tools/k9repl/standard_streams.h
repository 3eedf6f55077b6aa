// Standard input, output and error as files that are always there. Used by main, first of all.
#ifndef K9EREPL_K9REPL_STANDARD_STREAMS_H
#define K9EREPL_K9REPL_STANDARD_STREAMS_H

namespace k9repl {

// Gives each standard stream that the caller has closed a place holder, on which every use fails.
// Otherwise the storage file could be opened in its place, and messages be written into it. From
// here on bytes pass through the streams as they are, line ends too.
void PrepareStandardStreams();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STANDARD_STREAMS_H
