// A text that grows on the heap.
#pragma once

#include <string_view>

// Remembers a lack of memory until the end, so that no single step needs to be checked.
class TextBuffer {
public:
    TextBuffer() = default;
    ~TextBuffer();
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    void add(std::string_view text);
    void add(char character);
    void add(size_t count, char character);

    // Hands over the text, ended by NUL and to be freed with free(); null if memory ever lacked.
    char* release();

private:
    char* room(size_t size);

    char* text_ = nullptr;
    size_t length_ = 0;
    size_t capacity_ = 0;
    bool failed_ = false;
};
