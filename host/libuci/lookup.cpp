/// Finding things: by name, and by a tuple of names.
#include "internal.h"

#include <cstring>

using namespace ucilib;

namespace {

void addFlag(uci_ptr* ptr, int flag)
{
    ptr->flags = static_cast<decltype(ptr->flags)>(ptr->flags | flag);
}

bool validValue(const char* text)
{
    for (; *text; ++text) {
        if (static_cast<unsigned char>(*text) < ' ' && !strchr("\t\n\r", *text))
            return false;
    }
    return true;
}

// Cuts the text at the first of these characters, and returns what is behind it, or null.
char* cutAt(char* text, char c)
{
    char* found = text ? strchr(text, c) : nullptr;
    if (!found)
        return nullptr;
    *found = '\0';
    return found + 1;
}

void splitTuple(uci_ptr* ptr, char* text)
{
    *ptr = {};
    ptr->value = cutAt(text, '=');
    char* section = cutAt(text, '.');
    ptr->option = cutAt(section, '.');
    ptr->section = section;
    ptr->package = text;
}

// Names what the user gave only as a pointer.
void nameByPointers(uci_ptr* ptr)
{
    if (ptr->p)
        ptr->package = ptr->p->e.name;
    if (ptr->s)
        ptr->section = ptr->s->e.name;
    if (ptr->o)
        ptr->option = ptr->o->e.name;
}

// Finds `@TYPE[INDEX]`; false when the text is nothing of the kind. The section is null when there are fewer.
bool findByIndex(uci_package* p, const char* text, uci_section*& section)
{
    section = nullptr;
    const char* bracket = strchr(text, '[');
    if (*text != '@' || !bracket)
        return false;
    const std::string_view type(text + 1, static_cast<size_t>(bracket - text - 1));
    char* end = nullptr;
    long index = strtol(bracket + 1, &end, 10);
    if (end == bracket + 1 || strcmp(end, "]") != 0)
        return false;

    uci_element* e = nullptr;
    const auto matches = [type](uci_element* at) { return type.empty() || type == recordOf<uci_section>(at)->type; };
    if (index < 0) {
        uci_foreach_element (&p->sections, e) {
            index += matches(e);
        }
        if (index < 0)
            return true;
    }
    uci_foreach_element (&p->sections, e) {
        if (matches(e) && index-- == 0) {
            section = recordOf<uci_section>(e);
            return true;
        }
    }
    return true;
}

int findPackage(uci_context* ctx, uci_ptr* ptr)
{
    if (!ptr->p) {
        uci_element* e = findElement(ctx->root, ptr->package);
        ptr->p = e ? recordOf<uci_package>(e) : nullptr;
    }
    return ptr->p ? int(UCI_OK) : uci_load(ctx, ptr->package, &ptr->p);
}

int findTheSection(uci_ptr* ptr, bool extended)
{
    if (validName(ptr->section)) {
        ptr->s = findSection(ptr->p, ptr->section);
        return UCI_OK;
    }
    if (!extended || !findByIndex(ptr->p, ptr->section, ptr->s))
        return UCI_ERR_INVAL;
    addFlag(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
    if (ptr->s)
        ptr->section = ptr->s->e.name;
    return UCI_OK;
}

int lookUp(uci_context* ctx, uci_ptr* ptr, bool extended)
{
    if (!ptr->package || !validPackageName(ptr->package) || (ptr->option && !validName(ptr->option)) ||
        (ptr->value && !validValue(ptr->value)))
        return UCI_ERR_PARSE;
    ptr->target = ptr->option ? UCI_TYPE_OPTION : ptr->section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    int code = findPackage(ctx, ptr);
    if (code == UCI_OK && ptr->section)
        code = findTheSection(ptr, extended);
    if (code != UCI_OK)
        return code;
    ptr->o = ptr->s && ptr->option ? findOption(ptr->s, ptr->option) : nullptr;
    ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &ptr->p->e;
    addFlag(ptr, uci_ptr::UCI_LOOKUP_DONE);
    if (ptr->last->type == ptr->target)
        addFlag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

} // namespace

struct uci_package* uci_lookup_package(struct uci_context* ctx, const char* name)
{
    uci_element* e = name ? findElement(ctx->root, name) : nullptr;
    result(ctx, e ? UCI_OK : name ? UCI_ERR_NOTFOUND : UCI_ERR_INVAL);
    return e ? recordOf<uci_package>(e) : nullptr;
}

struct uci_section* uci_lookup_section(struct uci_context* ctx, struct uci_package* p, const char* name)
{
    uci_section* s = p && name ? findSection(p, name) : nullptr;
    result(ctx, s ? UCI_OK : p && name ? UCI_ERR_NOTFOUND : UCI_ERR_INVAL);
    return s;
}

struct uci_option* uci_lookup_option(struct uci_context* ctx, struct uci_section* s, const char* name)
{
    uci_option* o = s && name ? findOption(s, name) : nullptr;
    result(ctx, o ? UCI_OK : s && name ? UCI_ERR_NOTFOUND : UCI_ERR_INVAL);
    return o;
}

int uci_lookup_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended)
{
    if (!ptr)
        return result(ctx, UCI_ERR_INVAL);
    ctx->parse_reason = nullptr;
    if (str)
        splitTuple(ptr, str);
    else
        nameByPointers(ptr);
    return result(ctx, lookUp(ctx, ptr, extended));
}
