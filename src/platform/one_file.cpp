// Compares what two paths lead to; see the header.
#include "platform/one_file.h"

#include "platform/file_identity.h"
#include "platform/file_names.h"

namespace k9erepl::platform {
namespace {

// The place where a file would be made: the innermost folder of its path that exists, and the names
// from there on, each with a separator in front.
struct Place {
    FileIdentity folder;  // zeros when nothing of the path exists
    std::string names;
};

constexpr char kSeparator = '/';

// Takes the last name off `path`, together with the separators around it, and returns it. Returns
// an empty text when no name is left.
std::string TakeLastName(std::string& path) {
    while (!path.empty() && IsPathSeparator(path.back())) {
        path.pop_back();
    }
    std::string name;
    while (!path.empty() && !IsPathSeparator(path.back())) {
        name.insert(name.begin(), path.back());
        path.pop_back();
    }
    return name;
}

// Folders that are missing hold no links, so ".." behind one of them leads back to where it would
// be.
Place PlaceOf(const std::string& path) {
    Place place;
    std::string folder = FollowLink(path);
    unsigned skipped = 0;  // names that a ".." behind them takes back
    for (;;) {
        const std::string name = TakeLastName(folder);
        if (name == "..") {
            ++skipped;
        } else if (skipped > 0) {
            --skipped;
        } else if (!name.empty() && name != ".") {
            place.names.insert(0, kSeparator + name);
        }
        const std::string existing = folder.empty() ? (name.empty() ? "/" : ".") : folder;
        if (skipped == 0 && GetIdentity(existing, &place.folder)) {
            return place;
        }
        if (folder.empty()) {
            return place;
        }
    }
}

}  // namespace

bool LeadToOneFile(const std::string& one, const std::string& other) {
    FileIdentity first;
    FileIdentity second;
    const bool oneExists = GetIdentity(one, &first);
    const bool otherExists = GetIdentity(other, &second);
    if (oneExists || otherExists) {
        return oneExists && otherExists && first == second;
    }
    const Place firstPlace = PlaceOf(one);
    const Place secondPlace = PlaceOf(other);
    return firstPlace.folder == secondPlace.folder && SameName(firstPlace.names, secondPlace.names);
}

}  // namespace k9erepl::platform
