#include "ubox.h"

#include <cstdarg>
#include <cstddef>
#include <cstdlib>

namespace {

constexpr size_t alignedSize(size_t size)
{
    return (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
}

} // namespace

void* ubox_calloc_a(size_t size, ...)
{
    va_list args;
    size_t total = alignedSize(size);

    va_start(args, size);
    while (va_arg(args, void**))
        total += alignedSize(va_arg(args, size_t));
    va_end(args);

    auto* block = static_cast<char*>(calloc(1, total));
    if (!block)
        return nullptr;
    char* next = block + alignedSize(size);
    va_start(args, size);
    while (void** object = va_arg(args, void**)) {
        *object = next;
        next += alignedSize(va_arg(args, size_t));
    }
    va_end(args);
    return block;
}
