/// The tree of a package: making, finding and freeing its parts.
#include "internal.h"

#include <cstdio>
#include <cstring>

namespace ucilib {

void listInit(uci_list& list)
{
    list.next = &list;
    list.prev = &list;
}

void listInsertBefore(uci_list& place, uci_list& node)
{
    node.prev = place.prev;
    node.next = &place;
    place.prev->next = &node;
    place.prev = &node;
}

void listRemove(uci_list& node)
{
    node.prev->next = node.next;
    node.next->prev = node.prev;
    listInit(node);
}

namespace {

template <typename T>
T* newZeroed()
{
    return static_cast<T*>(calloc(1, sizeof(T)));
}

// An element that is in no list; false when memory is short.
bool initElement(uci_element& e, uci_type type, const char* name)
{
    listInit(e.list);
    e.type = type;
    e.name = strdup(name);
    return e.name != nullptr;
}

uci_option* newOption(uci_section* s, const char* name, uci_option_type type)
{
    auto* o = newZeroed<uci_option>();
    if (!o)
        return nullptr;
    o->section = s;
    o->type = type;
    if (type == UCI_TYPE_LIST)
        listInit(o->v.list);
    if (!initElement(o->e, UCI_TYPE_OPTION, name)) {
        free(o);
        return nullptr;
    }
    return o;
}

// Puts an option where the old one is, which is freed, or at the end of the section if there is none.
void placeOption(uci_section* s, uci_option* o, uci_option* old)
{
    listInsertBefore(old ? old->e.list : s->options, o->e.list);
    if (old)
        freeOption(old);
}

bool appendItem(uci_option* list, const char* value)
{
    uci_element* item = newItem(value);
    if (!item)
        return false;
    listInsertBefore(list->v.list, item->list);
    return true;
}

// "cfg", the section's number in the package, and a hash of its type.
void generateName(uci_package* p, const char* type, char (&name)[32])
{
    uint32_t hash = 5381;
    for (const char* c = type; *c; ++c)
        hash = hash * 33 + static_cast<unsigned char>(*c);
    hash = (hash & 0x7fffffff) % 65536;
    snprintf(name, sizeof(name), "cfg%02x%04x", p->section_count, hash);
    while (findSection(p, name)) { // somebody named a section like that
        ++p->section_count;
        snprintf(name, sizeof(name), "cfg%02x%04x", p->section_count, hash);
    }
}

template <typename Free>
void freeAll(uci_list& list, Free freeElement)
{
    uci_element *e = nullptr, *next = nullptr;
    uci_foreach_element_safe (&list, next, e)
        freeElement(e);
}

} // namespace

uci_package* newPackage(uci_context* ctx, const char* name, const char* path)
{
    auto* p = newZeroed<uci_package>();
    if (!p)
        return nullptr;
    p->ctx = ctx;
    p->has_delta = true;
    listInit(p->sections);
    listInit(p->delta);
    listInit(p->saved_delta);
    p->path = strdup(path);
    if (!initElement(p->e, UCI_TYPE_PACKAGE, name) || !p->path) {
        freePackage(p);
        return nullptr;
    }
    return p;
}

void freePackage(uci_package* p)
{
    if (!p)
        return;
    freeAll(p->sections, [](uci_element* e) { freeSection(recordOf<uci_section>(e)); });
    freeDeltas(p->delta);
    freeDeltas(p->saved_delta);
    free(p->path);
    free(p->e.name);
    free(p);
}

uci_section* newSection(uci_package* p, const char* type, const char* name)
{
    auto* s = newZeroed<uci_section>();
    if (!s)
        return nullptr;
    char generated[32];
    ++p->section_count;
    if (!name) {
        generateName(p, type, generated);
        s->anonymous = true;
    }
    s->package = p;
    listInit(s->options);
    s->type = strdup(type);
    if (!initElement(s->e, UCI_TYPE_SECTION, name ? name : generated) || !s->type) {
        freeSection(s);
        return nullptr;
    }
    listInsertBefore(p->sections, s->e.list);
    return s;
}

void freeSection(uci_section* s)
{
    listRemove(s->e.list);
    freeAll(s->options, [](uci_element* e) { freeOption(recordOf<uci_option>(e)); });
    free(s->type);
    free(s->e.name);
    free(s);
}

void freeOption(uci_option* o)
{
    listRemove(o->e.list);
    if (o->type == UCI_TYPE_LIST)
        freeAll(o->v.list, freeItem);
    else
        free(o->v.string);
    free(o->e.name);
    free(o);
}

uci_element* newItem(const char* text)
{
    auto* item = newZeroed<uci_element>();
    if (item && !initElement(*item, UCI_TYPE_ITEM, text)) {
        free(item);
        return nullptr;
    }
    return item;
}

void freeItem(uci_element* item)
{
    listRemove(item->list);
    free(item->name);
    free(item);
}

bool setType(uci_section* s, const char* type)
{
    char* copy = strdup(type);
    if (!copy)
        return false;
    free(s->type);
    s->type = copy;
    return true;
}

uci_option* putOption(uci_section* s, const char* name, const char* value)
{
    uci_option* o = newOption(s, name, UCI_TYPE_STRING);
    if (!o)
        return nullptr;
    o->v.string = strdup(value);
    if (!o->v.string) {
        freeOption(o);
        return nullptr;
    }
    placeOption(s, o, findOption(s, name));
    return o;
}

uci_option* putListItem(uci_section* s, const char* name, const char* value)
{
    uci_option* old = findOption(s, name);
    if (old && old->type == UCI_TYPE_LIST)
        return appendItem(old, value) ? old : nullptr;

    uci_option* o = newOption(s, name, UCI_TYPE_LIST);
    if (!o)
        return nullptr;
    if ((old && !appendItem(o, old->v.string)) || !appendItem(o, value)) {
        freeOption(o);
        return nullptr;
    }
    placeOption(s, o, old);
    return o;
}

uci_element* findElement(uci_list& list, const char* name)
{
    uci_element* e = nullptr;
    uci_foreach_element (&list, e) {
        if (strcmp(e->name, name) == 0)
            return e;
    }
    return nullptr;
}

uci_section* findSection(uci_package* p, const char* name)
{
    uci_element* e = findElement(p->sections, name);
    return e ? recordOf<uci_section>(e) : nullptr;
}

uci_option* findOption(uci_section* s, const char* name)
{
    uci_element* e = findElement(s->options, name);
    return e ? recordOf<uci_option>(e) : nullptr;
}

} // namespace ucilib
