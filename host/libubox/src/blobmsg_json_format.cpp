#include "ubox.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

constexpr int MAX_TABS = 16;
constexpr int MAX_DEPTH = 1000; // no JSON parser follows that far; what is nested more deeply is left out

struct Printer {
    FILE* out;
    blobmsg_json_format_t cb;
    void* priv;
    int indent; // below 0: compact
    int depth;  // containers that are open
};

void printAttr(Printer& to, blob_attr* attr, bool named);

void newLine(const Printer& to)
{
    static constexpr char TABS[] = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    static_assert(sizeof(TABS) == MAX_TABS + 1);
    if (to.indent >= 0)
        fprintf(to.out, "\n%.*s", std::min(to.indent + to.depth, MAX_TABS), TABS);
}

void printQuoted(const Printer& to, const char* text)
{
    static constexpr char SPECIAL[] = "\"\\\b\n\t\r";
    static constexpr char LETTER[] = "\"\\bntr";
    putc('"', to.out);
    for (; *text; ++text) {
        if (const char* special = strchr(SPECIAL, *text))
            fprintf(to.out, "\\%c", LETTER[special - SPECIAL]);
        else if (static_cast<unsigned char>(*text) < ' ')
            fprintf(to.out, "\\u%04x", static_cast<unsigned>(*text));
        else
            putc(*text, to.out);
    }
    putc('"', to.out);
}

void printChildren(Printer& to, void* data, size_t rest, bool array)
{
    putc(array ? '[' : '{', to.out);
    ++to.depth;
    newLine(to);
    bool first = true;
    if (to.depth > MAX_DEPTH)
        rest = 0;
    for (auto* child = static_cast<blob_attr*>(data); attrFits(child, rest); child = nextAttr(child, rest)) {
        if (!blobmsg_check_attr(child, false))
            continue;
        if (!first) {
            putc(',', to.out);
            newLine(to);
        }
        first = false;
        printAttr(to, child, !array);
    }
    --to.depth;
    newLine(to);
    putc(array ? ']' : '}', to.out);
}

void printValue(Printer& to, blob_attr* attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        printChildren(to, blobmsg_data(attr), blobmsg_data_len(attr), blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
        return;
    case BLOBMSG_TYPE_STRING:
        printQuoted(to, blobmsg_get_string(attr));
        return;
    case BLOBMSG_TYPE_INT8:
        fputs(blobmsg_get_bool(attr) ? "true" : "false", to.out);
        return;
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
        fprintf(to.out, "%" PRId64, blobmsg_cast_s64(attr));
        return;
    case BLOBMSG_TYPE_DOUBLE:
        fprintf(to.out, "%f", blobmsg_get_double(attr));
        return;
    default:
        fputs("null", to.out);
    }
}

void printAttr(Printer& to, blob_attr* attr, bool named)
{
    if (named && blob_is_extended(attr) && *blobmsg_name(attr)) {
        printQuoted(to, blobmsg_name(attr));
        fputs(to.indent < 0 ? ":" : ": ", to.out);
    }
    if (const char* instead = to.cb ? to.cb(to.priv, attr) : nullptr)
        fputs(instead, to.out);
    else
        printValue(to, attr);
}

// The children of an attribute that is taken as a container whatever it is.
void printAsContainer(Printer& to, blob_attr* attr)
{
    const bool extended = attr && blob_is_extended(attr);
    const bool array = extended && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;
    const bool scalar = extended && !array && blobmsg_type(attr) != BLOBMSG_TYPE_TABLE;
    printChildren(to, blobmsg_data(attr), scalar ? 0 : blobmsg_data_len(attr), array);
}

void printNamed(Printer& to, blob_attr* attr)
{
    if (blobmsg_check_attr(attr, false))
        printAttr(to, attr, true);
}

void printUnnamed(Printer& to, blob_attr* attr)
{
    if (blobmsg_check_attr(attr, false))
        printAttr(to, attr, false);
}

// The text that `print` makes of the attribute, on the heap; null without memory.
char* format(void (*print)(Printer&, blob_attr*), blob_attr* attr, blobmsg_json_format_t cb, void* priv, int indent)
{
    char* text = nullptr;
    size_t length = 0;
    Printer to{open_memstream(&text, &length), cb, priv, indent, 0};
    if (!to.out)
        return nullptr;
    print(to, attr);
    const bool failed = ferror(to.out) != 0;
    if (fclose(to.out) == 0 && !failed)
        return text;
    free(text);
    return nullptr;
}

} // namespace

char* blobmsg_format_json_with_cb(blob_attr* attr, bool list, blobmsg_json_format_t cb, void* priv, int indent)
{
    return format(list ? printAsContainer : printNamed, attr, cb, priv, indent);
}

char* blobmsg_format_json_value(blob_attr* attr)
{
    return format(printUnnamed, attr, nullptr, nullptr, -1);
}
