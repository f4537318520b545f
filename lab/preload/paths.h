#pragma once
// Where the absolute paths that a camera's programs use lie in the lab.

#include <limits.h>
#include <stddef.h>

/// The place of one path in the lab; outside a lab, and for every other path, that path itself. Any thread, no lock,
/// no memory of its own beyond the object. Keeps errno.
class LabPath {
public:
    explicit LabPath(const char* path);
    LabPath(const LabPath&) = delete;
    LabPath& operator=(const LabPath&) = delete;

    /// The path to hand on. One that grows too long in the lab comes back as a name that no file system takes, so
    /// that the call fails with ENAMETOOLONG and never reaches the machine's own file.
    const char* get() const
    {
        return target_;
    }
    bool moved() const
    {
        return target_ == buffer_;
    }
    /// A node of /dev: a regular file in the lab, which opening must neither create nor empty.
    bool isDevice() const
    {
        return device_;
    }

private:
    const char* target_;
    bool device_ = false;
    char buffer_[PATH_MAX];
};

/// Turns a path below the lab folder back into the one that a program asked for, in place; others stay.
void restorePath(char* path);
