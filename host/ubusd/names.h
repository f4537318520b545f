#pragma once
// Names of users and groups for the owners of objects to read.

#include <string>
#include <unordered_map>

#include <sys/types.h>

/// The name from the password or group database, or the number as text when there is none.
///
/// Each is looked up once: a call on the bus must not wait for a name service again and again. The text stays valid
/// until the next call.
const std::string& userName(uid_t user);
const std::string& groupName(gid_t group);
