#include "text_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

TextBuffer::~TextBuffer()
{
    free(text_);
}

// The place of the next `size` characters, or null.
char* TextBuffer::room(size_t size)
{
    if (failed_)
        return nullptr;
    if (length_ + size > capacity_) {
        size_t capacity = std::max({length_ + size, 2 * capacity_, size_t{256}});
        auto* larger = static_cast<char*>(realloc(text_, capacity));
        if (!larger) {
            failed_ = true;
            return nullptr;
        }
        text_ = larger;
        capacity_ = capacity;
    }
    length_ += size;
    return text_ + length_ - size;
}

void TextBuffer::add(std::string_view text)
{
    if (char* place = room(text.size()))
        memcpy(place, text.data(), text.size());
}

void TextBuffer::add(char character)
{
    add(1, character);
}

void TextBuffer::add(size_t count, char character)
{
    if (char* place = room(count))
        memset(place, character, count);
}

char* TextBuffer::release()
{
    add('\0');
    return failed_ ? nullptr : std::exchange(text_, nullptr);
}
