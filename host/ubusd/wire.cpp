#include "wire.h"

#include <algorithm>

namespace {

constexpr uint32_t EXTENDED = 0x80000000;
constexpr uint32_t LENGTH_MASK = 0x00ffffff;
constexpr size_t NAME_LENGTH_SIZE = 2;

std::string_view asText(Bytes bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool endsWithNul(Bytes bytes)
{
    return !bytes.empty() && bytes.back() == 0;
}

// Leaves `number` alone when the payload is none.
void takeNumber(Bytes payload, std::optional<uint32_t>& number)
{
    if (payload.size() == sizeof(uint32_t))
        number = readU32(payload.data());
}

// Splits an extended attribute's payload into name and value. False when the name does not fit or is not ended.
bool splitName(Bytes payload, Field& out)
{
    if (payload.size() < NAME_LENGTH_SIZE)
        return false;
    const size_t nameLength = readU16(payload.data());
    const size_t headerSize = padded(NAME_LENGTH_SIZE + nameLength + 1);
    if (headerSize > payload.size() || payload[NAME_LENGTH_SIZE + nameLength] != 0)
        return false;
    out.name = asText(payload.subspan(NAME_LENGTH_SIZE, nameLength));
    out.value = payload.subspan(headerSize);
    return true;
}

bool valueFitsType(uint8_t type, Bytes value)
{
    switch (type) {
    case FIELD_STRING:
        return endsWithNul(value);
    case FIELD_INT64:
        return value.size() == 8;
    case FIELD_INT32:
        return value.size() == 4;
    case FIELD_INT16:
        return value.size() == 2;
    case FIELD_INT8:
        return value.size() == 1;
    case FIELD_DOUBLE:
        return value.size() >= 8;
    default:
        return type < FIELD_STRING;
    }
}

void append(std::vector<uint8_t>& to, uint32_t word)
{
    uint8_t bytes[sizeof word];
    writeU32(bytes, word);
    to.insert(to.end(), bytes, bytes + sizeof bytes);
}

void appendPadding(std::vector<uint8_t>& to, size_t length)
{
    to.insert(to.end(), padded(length) - length, 0);
}

void appendText(std::vector<uint8_t>& to, std::string_view text)
{
    to.insert(to.end(), text.begin(), text.end());
    to.push_back(0);
}

void appendFieldHeader(std::vector<uint8_t>& data, FieldType type, std::string_view name, size_t valueSize)
{
    const size_t nameHeader = padded(NAME_LENGTH_SIZE + name.size() + 1);
    append(data, EXTENDED | uint32_t{type} << 24 | static_cast<uint32_t>(ATTR_SIZE + nameHeader + valueSize));
    data.push_back(static_cast<uint8_t>(name.size() >> 8));
    data.push_back(static_cast<uint8_t>(name.size()));
    appendText(data, name);
    appendPadding(data, NAME_LENGTH_SIZE + name.size() + 1);
}

} // namespace

uint16_t readU16(const uint8_t* at)
{
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

uint32_t readU32(const uint8_t* at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

void writeU32(uint8_t* at, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        *at++ = static_cast<uint8_t>(value >> shift);
}

bool takeAttribute(Bytes& run, Attribute& out)
{
    if (run.size() < ATTR_SIZE)
        return false;
    const uint32_t word = readU32(run.data());
    const size_t length = word & LENGTH_MASK;
    if (length < ATTR_SIZE || length > run.size())
        return false;
    out = {.id = static_cast<uint8_t>(word >> 24 & 0x7f),
           .extended = (word & EXTENDED) != 0,
           .payload = run.subspan(ATTR_SIZE, length - ATTR_SIZE)};
    run = run.subspan(std::min(padded(length), run.size()));
    return true;
}

bool takeField(Bytes& run, Field& out)
{
    Attribute attr;
    while (takeAttribute(run, attr)) {
        if (!attr.extended)
            continue;
        out.type = attr.id;
        return splitName(attr.payload, out) && valueFitsType(out.type, out.value);
    }
    return false;
}

std::string_view textOf(Bytes bytes)
{
    return reinterpret_cast<const char*>(bytes.data());
}

Message readMessage(Bytes raw)
{
    Message message;
    message.raw = raw;
    message.type = raw[1];
    message.seq = readU16(&raw[2]);
    message.peer = readU32(&raw[4]);
    Bytes run = raw.subspan(FRAME_SIZE);
    Attribute attr;
    while (takeAttribute(run, attr)) {
        const Bytes payload = attr.payload;
        switch (attr.id) {
        case ATTR_OBJPATH:
        case ATTR_METHOD:
            if (endsWithNul(payload))
                (attr.id == ATTR_METHOD ? message.method : message.path) = textOf(payload);
            break;
        case ATTR_OBJID:
            takeNumber(payload, message.objectId);
            break;
        case ATTR_OBJTYPE:
            takeNumber(payload, message.typeId);
            break;
        case ATTR_TARGET:
            takeNumber(payload, message.target);
            break;
        case ATTR_NO_REPLY:
            if (payload.size() == 1)
                message.noReply = payload[0] != 0;
            break;
        case ATTR_SIGNATURE:
            message.signature = payload;
            break;
        case ATTR_DATA:
            message.data = payload;
            break;
        default:
            break;
        }
    }
    return message;
}

MessageWriter::MessageWriter(MessageType type, uint16_t seq, uint32_t peer) : bytes_(FRAME_SIZE)
{
    bytes_[1] = type;
    bytes_[2] = static_cast<uint8_t>(seq >> 8);
    bytes_[3] = static_cast<uint8_t>(seq);
    writeU32(&bytes_[4], peer);
}

void MessageWriter::put(AttrId id, uint32_t value)
{
    append(bytes_, uint32_t{id} << 24 | (ATTR_SIZE + sizeof value));
    append(bytes_, value);
}

void MessageWriter::put(AttrId id, uint8_t value)
{
    put(id, Bytes(&value, sizeof value));
}

void MessageWriter::put(AttrId id, std::string_view text)
{
    append(bytes_, uint32_t{id} << 24 | static_cast<uint32_t>(ATTR_SIZE + text.size() + 1));
    appendText(bytes_, text);
    appendPadding(bytes_, text.size() + 1);
}

void MessageWriter::put(AttrId id, Bytes payload)
{
    append(bytes_, uint32_t{id} << 24 | static_cast<uint32_t>(ATTR_SIZE + payload.size()));
    bytes_.insert(bytes_.end(), payload.begin(), payload.end());
    appendPadding(bytes_, payload.size());
}

Bytes MessageWriter::finish()
{
    const size_t root = bytes_.size() - HEADER_SIZE;
    if (root > MAX_ROOT)
        return {};
    writeU32(&bytes_[HEADER_SIZE], static_cast<uint32_t>(root));
    return bytes_;
}

void putNumber(std::vector<uint8_t>& run, uint32_t value)
{
    append(run, ATTR_SIZE + sizeof value); // with the id 0
    append(run, value);
}

void putField(std::vector<uint8_t>& data, std::string_view name, uint32_t value)
{
    appendFieldHeader(data, FIELD_INT32, name, sizeof value);
    append(data, value);
}

void putField(std::vector<uint8_t>& data, std::string_view name, std::string_view text)
{
    appendFieldHeader(data, FIELD_STRING, name, text.size() + 1);
    appendText(data, text);
    appendPadding(data, text.size() + 1);
}
