// Reads the record files of golden data under tests/vectors, whose README explains them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

// One record: the lines "key: value" between two empty lines.
class VectorRecord {
public:
    void set(std::string key, std::string value);
    bool has(const std::string& key) const;
    // The value as it is in the file; throws std::out_of_range without such a key.
    const std::string& text(const std::string& key) const;
    // A value of hexadecimal digits, decoded.
    Bytes bytes(const std::string& key) const;
    // A value that is a JSON string literal, decoded.
    std::string jsonText(const std::string& key) const;

private:
    std::map<std::string, std::string> values_;
};

// All records of a file of the vectors' folder; throws std::runtime_error when it cannot be read.
std::vector<VectorRecord> readVectorFile(const std::string& fileName);

// Throws std::invalid_argument for anything but pairs of hexadecimal digits.
Bytes bytesFromHex(std::string_view hex);
std::string hexFromBytes(const void* data, size_t size);
