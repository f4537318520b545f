#include "paths.h"

#include "context.h"

#include <stdio.h>
#include <string.h>

#include <cerrno>

namespace {

struct Mapping {
    const char* path;  // itself and everything below it
    const char* inLab; // below the lab folder
    bool device;
};

// /run and /var/run are one place, as on most systems.
constexpr Mapping MAPPINGS[] = {
    {"/etc/config", "/etc/config", false},
    {"/tmp/.uci", "/tmp/.uci", false},
    {"/var/run", "/var/run", false},
    {"/run", "/var/run", false},
    {"/usr/share/acl.d", "/usr/share/acl.d", false},
    {"/dev/console", "/dev/console", true},
    {"/dev/x-motor", "/dev/x-motor", true},
    {"/dev/y-motor", "/dev/y-motor", true},
};

bool isBelow(const char* path, const char* folder)
{
    const size_t length = strlen(folder);
    return strncmp(path, folder, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

} // namespace

LabPath::LabPath(const char* path) : target_(path)
{
    if (!path || path[0] != '/')
        return;
    const char* folder = labFolder();
    // The lab itself may lie below one of the mapped places.
    if (!folder || isBelow(path, folder))
        return;
    for (const Mapping& mapping : MAPPINGS) {
        if (!isBelow(path, mapping.path))
            continue;
        target_ = buffer_;
        device_ = mapping.device;
        const int length =
            snprintf(buffer_, sizeof(buffer_), "%s%s%s", folder, mapping.inLab, path + strlen(mapping.path));
        if (length < 0 || static_cast<size_t>(length) >= sizeof(buffer_)) {
            memset(buffer_, 'x', NAME_MAX + 1);
            buffer_[NAME_MAX + 1] = '\0';
        }
        return;
    }
}

void restorePath(char* path)
{
    const char* folder = labFolder();
    if (!folder || !isBelow(path, folder))
        return;
    const char* rest = path + strlen(folder);
    memmove(path, rest, strlen(rest) + 1);
}
