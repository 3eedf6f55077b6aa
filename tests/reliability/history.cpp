// Which states a moment allows; see the header.
#include "reliability/history.h"

#include <algorithm>

#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

namespace {

// The last mark that stands at or before a moment.
const Mark& MarkBefore(const std::vector<Mark>& marks, std::size_t changes) {
    const auto behind =
        std::upper_bound(marks.begin(), marks.end(), changes,
                         [](std::size_t at, const Mark& mark) { return at < mark.changes; });
    return *(behind - 1);
}

}  // namespace

std::string StoragePath() {
    return std::string(kFolder) + "storage.edb";
}

std::string History::ConnString() const {
    return moreSettings + settings.ConnString(StoragePath());
}

// Operations that changed nothing end at one moment: what the last of them led to has begun there.
std::size_t History::BegunAt(std::size_t at) const {
    const auto ended =
        std::lower_bound(marks.begin(), marks.end(), at,
                         [](const Mark& mark, std::size_t count) { return mark.changes < count; });
    const std::size_t next = ended == marks.end() ? states.size() - 1 : ended->begun;
    return std::max(next, MarkBefore(marks, at).begun);
}

StateRange History::AfterKill(std::size_t at, bool partOfNext) const {
    return {MarkBefore(marks, at).acknowledged, BegunAt(partOfNext ? at + 1 : at)};
}

StateRange History::AfterPowerCut(std::size_t at) const {
    return {MarkBefore(marks, at).flushed, BegunAt(at)};
}

}  // namespace k9erepl::reliability
