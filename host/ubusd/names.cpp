#include "names.h"

#include <cerrno>

#include <grp.h>
#include <pwd.h>

namespace {

using NameCache = std::unordered_map<unsigned, std::string>;

// `lookUp` gives a name or null; with errno set the database could not be asked, and may be the next time.
template <class LookUp>
const std::string& nameOf(NameCache& cache, unsigned id, LookUp lookUp)
{
    static std::string number;
    if (const auto known = cache.find(id); known != cache.end())
        return known->second;
    errno = 0;
    if (const char* name = lookUp(id))
        return cache[id] = name;
    number = std::to_string(id);
    if (errno != 0 && errno != ENOENT)
        return number;
    return cache[id] = number;
}

} // namespace

const std::string& userName(uid_t user)
{
    static NameCache cache;
    return nameOf(cache, user, [](uid_t id) {
        const passwd* entry = getpwuid(id);
        return entry ? entry->pw_name : nullptr;
    });
}

const std::string& groupName(gid_t group)
{
    static NameCache cache;
    return nameOf(cache, group, [](gid_t id) {
        const struct group* entry = getgrgid(id);
        return entry ? entry->gr_name : nullptr;
    });
}
