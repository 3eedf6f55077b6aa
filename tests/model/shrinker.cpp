// Delta debugging with ever smaller chunks; see the header.
#include "model/shrinker.h"

#include <algorithm>

namespace k9erepl::model {

namespace {

class Shrinker {
  public:
    Shrinker(Shrunk best, const RunScript& run, u32 runsMax)
        : m_best(std::move(best)), m_run(run), m_runsLeft(runsMax) {
        DropWhatFollows();
    }

    Shrunk Work() {
        for (std::size_t chunk = m_best.script.size() / 2; chunk > 0;) {
            const bool removed = RemoveChunks(chunk);
            if (m_runsLeft == 0) {
                break;
            }
            // Single steps again and again until none can go.
            chunk = chunk > 1 ? chunk / 2 : (removed ? 1 : 0);
        }
        return std::move(m_best);
    }

  private:
    void DropWhatFollows() { m_best.script.resize(m_best.failure.position + 1); }

    // Tries chunks from the end on: what comes early is often needed by what comes late.
    bool RemoveChunks(std::size_t chunk) {
        bool removed = false;
        std::size_t end = m_best.script.size();
        while (end > 1 && m_runsLeft > 0) {
            const std::size_t begin = end > chunk ? std::max<std::size_t>(end - chunk, 1) : 1;
            removed = TryWithout(begin, end) || removed;
            end = std::min(begin, m_best.script.size());
        }
        return removed;
    }

    bool TryWithout(std::size_t begin, std::size_t end) {
        Script shorter = m_best.script;
        shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(begin),
                      shorter.begin() + static_cast<std::ptrdiff_t>(end));
        --m_runsLeft;
        const std::optional<Failure> failure = m_run(shorter);
        if (!failure || failure->what != m_best.failure.what) {
            return false;
        }
        m_best = {std::move(shorter), *failure};
        DropWhatFollows();
        return true;
    }

    Shrunk m_best;
    const RunScript& m_run;
    u32 m_runsLeft;
};

}  // namespace

Shrunk Shrink(const Script& script, const Failure& failure, const RunScript& run, u32 runsMax) {
    return Shrinker({script, failure}, run, runsMax).Work();
}

}  // namespace k9erepl::model
