#include "internal.h"

#include <cstdarg>
#include <cstdio>

using namespace ucilib;

namespace {

const char* const ERROR_TEXTS[] = {"Success",   "Out of memory", "Invalid argument", "Entry not found",
                                   "I/O error", "Parse error",   "Duplicate entry",  "Unknown error"};
static_assert(std::size(ERROR_TEXTS) == UCI_ERR_LAST);

const char* errorText(int code)
{
    return ERROR_TEXTS[code >= 0 && code < UCI_ERR_LAST ? code : UCI_ERR_UNKNOWN];
}

} // namespace

void uci_get_errorstr(struct uci_context* ctx, char** dest, const char* prefix)
{
    if (!dest)
        return;
    const int code = ctx->err;
    const char* before = prefix ? prefix : "";
    const char* colon = prefix ? ": " : "";
    char* text = nullptr;
    int size = 0;
    if (code == UCI_ERR_PARSE && ctx->parse_reason)
        size = asprintf(&text, "%s%s%s (%s) at line %d, byte %d", before, colon, errorText(code), ctx->parse_reason,
                        ctx->parse_line, ctx->parse_byte);
    else
        size = asprintf(&text, "%s%s%s", before, colon, errorText(code));
    *dest = size < 0 ? nullptr : text;
}

void uci_perror(struct uci_context* ctx, const char* prefix)
{
    char* text = nullptr;
    uci_get_errorstr(ctx, &text, prefix);
    fprintf(stderr, "%s\n", text ? text : errorText(UCI_ERR_MEM));
    free(text);
}
