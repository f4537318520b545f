#pragma once
// Numbers of the bus protocol: message types, attribute ids, status values, limits.
//
// A message is an 8-byte header (version, type, sequence number, peer; numbers big-endian) and one root attribute. An
// attribute is a big-endian word (bit 31: a name header follows; bits 24 to 30: id; bits 0 to 23: length with this
// word, without padding), the payload, and zeros up to a multiple of 4.

#include <cstddef>
#include <cstdint>

constexpr size_t HEADER_SIZE = 8;
constexpr size_t ATTR_SIZE = 4;                        // an attribute's word
constexpr size_t FRAME_SIZE = HEADER_SIZE + ATTR_SIZE; // what must be there to know a message's length
constexpr size_t MAX_ROOT = 1048576;                   // longest root attribute, padded
constexpr size_t MAX_QUEUE = 1048576;                  // bytes kept for a client that does not read

constexpr uint32_t EVENT_OBJECT = 1;    // system object that registers patterns and sends events
constexpr uint32_t FIRST_OWN_ID = 1024; // ids below are the system's

enum MessageType : uint8_t {
    MSG_HELLO = 0,
    MSG_STATUS = 1,
    MSG_DATA = 2,
    MSG_PING = 3,
    MSG_LOOKUP = 4,
    MSG_INVOKE = 5,
    MSG_ADD_OBJECT = 6,
    MSG_REMOVE_OBJECT = 7,
};

enum AttrId : uint8_t {
    ATTR_STATUS = 1,
    ATTR_OBJPATH = 2,
    ATTR_OBJID = 3,
    ATTR_METHOD = 4,
    ATTR_OBJTYPE = 5,
    ATTR_SIGNATURE = 6,
    ATTR_DATA = 7,
    ATTR_USER = 12,
    ATTR_GROUP = 13,
};

enum FieldType : uint8_t {
    FIELD_TABLE = 2,
    FIELD_STRING = 3,
    FIELD_INT64 = 4,
    FIELD_INT32 = 5,
    FIELD_INT16 = 6,
    FIELD_INT8 = 7,
    FIELD_DOUBLE = 8,
};

enum class Status : uint32_t {
    Ok = 0,
    InvalidCommand = 1,
    InvalidArgument = 2,
    NotFound = 4,
    PermissionDenied = 6,
};
