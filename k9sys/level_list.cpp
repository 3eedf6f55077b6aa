// The grammar of K9SYS_LOG.
#include "level_list.h"

#include <algorithm>

namespace k9sys {

namespace {

constexpr const char* kLevelNames[] = {"off", "error", "warning", "info"};

std::string_view Trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool ParseLevel(std::string_view text, K9SysLogLevel* level) {
    for (K9SysLogLevel known :
         {K9SYS_LOG_OFF, K9SYS_LOG_ERROR, K9SYS_LOG_WARNING, K9SYS_LOG_INFO}) {
        if (text == LevelName(known)) {
            *level = known;
            return true;
        }
    }
    return false;
}

bool ParseItem(std::string_view item, LevelList* list) {
    if (item.empty()) {
        return true;
    }
    const std::size_t equals = item.rfind('=');
    if (equals == std::string_view::npos) {
        return ParseLevel(item, &list->defaultLevel);
    }
    const std::string_view module = Trimmed(item.substr(0, equals));
    K9SysLogLevel level = K9SYS_LOG_OFF;
    if (module.empty() || !ParseLevel(Trimmed(item.substr(equals + 1)), &level)) {
        return false;
    }
    list->modules.emplace_back(module, level);
    return true;
}

}  // namespace

K9SysLogLevel LevelList::LevelOf(std::string_view module) const {
    const auto last = std::find_if(modules.rbegin(), modules.rend(),
                                   [&](const auto& item) { return item.first == module; });
    return last == modules.rend() ? defaultLevel : last->second;
}

bool ParseLevelList(std::string_view text, LevelList* list) {
    *list = LevelList();
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        if (!ParseItem(Trimmed(text.substr(start, end - start)), list)) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

const char* LevelName(K9SysLogLevel level) {
    return kLevelNames[level];
}

}  // namespace k9sys
