// Layers over the table of system calls. A layer takes single entries while it lives, sees their
// calls, answers them or passes them on to what was there before, and puts everything back at its
// end. What fails, counts, records, gates or replaces system calls in the tests is made of this.
//
//     class Disk : CallLayer<Disk> {
//         Disk() { Take<&SystemCalls::readFile, &Disk::Read>(); }
//         i64 Read(NativeFile file, void* to, u32 size) { return Below().readFile(file, to, size);
//         }
//     };
#ifndef K9EREPL_TESTS_SUPPORT_CALL_LAYER_H
#define K9EREPL_TESTS_SUPPORT_CALL_LAYER_H

#include <cassert>

#include "platform/system_calls.h"

namespace k9erepl::test {

template <auto... kEntries>
struct CallEntries {};
using CallTable = platform::SystemCalls;
using FileEntries =
    CallEntries<&CallTable::openFile, &CallTable::closeFile, &CallTable::readFile,
                &CallTable::writeFile, &CallTable::seekFile, &CallTable::tellFile,
                &CallTable::setFileEnd, &CallTable::fileSize, &CallTable::flushFile,
                &CallTable::startFlush, &CallTable::takeOwnerAndMode, &CallTable::lockFile,
                &CallTable::unlockFile, &CallTable::fileIdentity, &CallTable::nameIdentity,
                &CallTable::renameFile, &CallTable::linkFile, &CallTable::removeFile,
                &CallTable::makeDirectory, &CallTable::flushDirectory>;
using MemoryEntries = CallEntries<&CallTable::allocMemory, &CallTable::freeMemory>;
using ThreadEntries =
    CallEntries<&CallTable::createEvent, &CallTable::destroyEvent, &CallTable::setEvent,
                &CallTable::waitEvent, &CallTable::createThread, &CallTable::setThreadAffinity,
                &CallTable::resumeThread, &CallTable::joinThread, &CallTable::terminateThread,
                &CallTable::destroyThread>;

// Layers stack: the last one made gets the calls first, and ends first. One of each kind at a time,
// begun before and ended after every other thread that uses the table.
template <typename Layer>
class CallLayer {
  public:
    CallLayer(const CallLayer&) = delete;
    CallLayer& operator=(const CallLayer&) = delete;

  protected:
    CallLayer() : m_below(platform::TheSystemCalls()) {
        assert(s_layer == nullptr);
        s_layer = static_cast<Layer*>(this);
    }
    ~CallLayer() {
        platform::TheSystemCalls() = m_below;
        s_layer = nullptr;
    }

    const CallTable& Below() const { return m_below; }
    static Layer& TheLayer() { return *s_layer; }

    // From now on the layer's member function of the same arguments answers the entry.
    template <auto kEntry, auto kMethod>
    void Take() {
        TakeEntry<kEntry, kMethod>(kEntry);
    }
    // From now on Layer::Around gets these calls, as functions without arguments.
    template <auto... kEntries>
    void Wrap(CallEntries<kEntries...> /*entries*/) {
        (WrapEntry<kEntries>(kEntries), ...);
    }

  private:
    template <auto kEntry, auto kMethod, typename Result, typename... Arguments>
    static void TakeEntry(Result (*CallTable::* /*entry*/)(Arguments...)) {
        platform::TheSystemCalls().*kEntry = [](Arguments... arguments) -> Result {
            return (s_layer->*kMethod)(arguments...);
        };
    }
    template <auto kEntry, typename Result, typename... Arguments>
    static void WrapEntry(Result (*CallTable::* /*entry*/)(Arguments...)) {
        platform::TheSystemCalls().*kEntry = [](Arguments... arguments) -> Result {
            return Layer::Around([&] { return (s_layer->m_below.*kEntry)(arguments...); });
        };
    }

    static inline Layer* s_layer = nullptr;
    const CallTable m_below;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_CALL_LAYER_H
