#pragma once
// Reading and writing of messages and of the attributes in them. Everything here bears any input: what does not fit
// into the bytes at hand ends a walk, and no function reads past them.
//
// A message is an 8-byte header (version, type, sequence number, peer; numbers big-endian) and one root attribute. An
// attribute is a big-endian word (bit 31: a name header follows; bits 24 to 30: id; bits 0 to 23: length with this
// word, without padding), the payload, and zeros up to a multiple of 4.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

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
    MSG_SUBSCRIBE = 8,
    MSG_UNSUBSCRIBE = 9,
    MSG_NOTIFY = 10,
};

enum AttrId : uint8_t {
    ATTR_STATUS = 1,
    ATTR_OBJPATH = 2,
    ATTR_OBJID = 3,
    ATTR_METHOD = 4,
    ATTR_OBJTYPE = 5,
    ATTR_SIGNATURE = 6,
    ATTR_DATA = 7,
    ATTR_TARGET = 8,
    ATTR_ACTIVE = 9,
    ATTR_NO_REPLY = 10,
    ATTR_SUBSCRIBERS = 11,
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

using Bytes = std::span<const uint8_t>;

/// Big-endian numbers; `at` must have 2 or 4 bytes.
uint16_t readU16(const uint8_t* at);
uint32_t readU32(const uint8_t* at);
void writeU32(uint8_t* at, uint32_t value);

/// Next multiple of 4.
constexpr size_t padded(size_t length)
{
    return (length + 3) & ~size_t{3};
}

struct Attribute {
    uint8_t id = 0;
    bool extended = false; // the payload begins with a name header
    Bytes payload;
};

/// Takes the first attribute off `run` into `out`.
///
/// The padding behind a last attribute may be missing. False, and nothing changed, when no whole attribute is left.
[[nodiscard]] bool takeAttribute(Bytes& run, Attribute& out);

/// A named, typed value inside DATA or SIGNATURE.
struct Field {
    uint8_t type = 0;
    std::string_view name;
    Bytes value;
};

/// Takes the first valid field off `run`, passing over attributes without a name header.
///
/// False at the end and at the first invalid or truncated field: what follows one is not looked at.
[[nodiscard]] bool takeField(Bytes& run, Field& out);

/// Text up to its first NUL; `bytes` must hold one.
std::string_view textOf(Bytes bytes);

/// A whole message as it came, header first, and what the daemon uses of it. Refers to the bytes it was read from.
struct Message {
    Bytes raw;
    uint8_t type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    // Absent also when of a wrong size or an unterminated text; of repeated ones the last valid one.
    std::optional<std::string_view> path;
    std::optional<std::string_view> method;
    std::optional<uint32_t> objectId;
    std::optional<uint32_t> typeId;
    std::optional<uint32_t> target;
    std::optional<Bytes> signature;
    std::optional<Bytes> data;
    bool noReply = false;
};

/// @param raw  one message with a good root length, complete
Message readMessage(Bytes raw);

/// Builds one message in memory of its own.
class MessageWriter {
public:
    MessageWriter(MessageType type, uint16_t seq, uint32_t peer);
    void put(AttrId id, uint32_t value);
    void put(AttrId id, uint8_t value);
    void put(AttrId id, std::string_view text);
    void put(AttrId id, Bytes payload);

    /// The message so far, its root length set. Valid until the next put; empty when the message passed MAX_ROOT,
    /// which no peer would take.
    Bytes finish();

private:
    std::vector<uint8_t> bytes_;
};

/// Appends a number without a name, an attribute of its own, to a SUBSCRIBERS payload under construction.
void putNumber(std::vector<uint8_t>& run, uint32_t value);

/// Appends a field to a DATA payload under construction.
void putField(std::vector<uint8_t>& data, std::string_view name, uint32_t value);
void putField(std::vector<uint8_t>& data, std::string_view name, std::string_view text);
