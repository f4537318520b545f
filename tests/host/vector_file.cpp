#include "vector_file.h"

#include <charconv>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <utility>

#include <json-c/json.h>

void VectorRecord::set(std::string key, std::string value)
{
    values_[std::move(key)] = std::move(value);
}

bool VectorRecord::has(const std::string& key) const
{
    return values_.count(key) > 0;
}

const std::string& VectorRecord::text(const std::string& key) const
{
    return values_.at(key);
}

Bytes VectorRecord::bytes(const std::string& key) const
{
    return bytesFromHex(text(key));
}

std::string VectorRecord::jsonText(const std::string& key) const
{
    std::unique_ptr<json_object, int (*)(json_object*)> value(json_tokener_parse(text(key).c_str()), json_object_put);
    if (!json_object_is_type(value.get(), json_type_string))
        throw std::invalid_argument(key + " is no JSON string: " + text(key));
    return {json_object_get_string(value.get()), static_cast<size_t>(json_object_get_string_len(value.get()))};
}

std::vector<VectorRecord> readVectorFile(const std::string& fileName)
{
    std::ifstream file(std::string(PTZD_VECTORS) + "/" + fileName);
    if (!file)
        throw std::runtime_error("cannot read the golden data in " + fileName);
    std::vector<VectorRecord> records;
    bool open = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#'))
            continue;
        size_t colon = line.find(": ");
        if (colon == std::string::npos) {
            open = false;
            continue;
        }
        if (!open)
            records.emplace_back();
        open = true;
        records.back().set(line.substr(0, colon), line.substr(colon + 2));
    }
    return records;
}

Bytes bytesFromHex(std::string_view hex)
{
    Bytes bytes;
    for (size_t at = 0; at < hex.size(); at += 2) {
        uint8_t value = 0;
        std::string_view digits = hex.substr(at, 2);
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2)
            throw std::invalid_argument("no pair of hexadecimal digits: " + std::string(digits));
        bytes.push_back(value);
    }
    return bytes;
}

std::string hexFromBytes(const void* data, size_t size)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string hex;
    for (const auto* byte = static_cast<const uint8_t*>(data); size > 0; ++byte, --size) {
        hex += DIGITS[*byte >> 4];
        hex += DIGITS[*byte & 15];
    }
    return hex;
}
