#include "internal.h"

#include <cstring>

namespace ucilib {

Text::~Text()
{
    free(data_);
}

char* Text::room(size_t count)
{
    if (failed_)
        return nullptr;
    const size_t need = size_ + count + 1; // and the NUL
    if (need > capacity_) {
        const size_t larger = need > 2 * capacity_ ? need : 2 * capacity_;
        char* data = static_cast<char*>(realloc(data_, larger));
        if (!data) {
            failed_ = true;
            return nullptr;
        }
        data_ = data;
        capacity_ = larger;
    }
    return data_ + size_;
}

void Text::grow(size_t count)
{
    size_ += count;
    data_[size_] = '\0';
}

Text& Text::operator<<(std::string_view more)
{
    if (char* to = room(more.size())) {
        memcpy(to, more.data(), more.size());
        grow(more.size());
    }
    return *this;
}

Text& Text::operator<<(char c)
{
    return *this << std::string_view(&c, 1);
}

Text& Text::quoted(std::string_view more)
{
    *this << '\'';
    for (size_t quote = more.find('\''); quote != more.npos; quote = more.find('\'')) {
        *this << slice(more, 0, quote) << "'\\''";
        more.remove_prefix(quote + 1);
    }
    return *this << more << '\'';
}

} // namespace ucilib
