/// Changes to a package in memory: how each is applied, and the calls that make and record them.
#include "internal.h"

#include <cstring>

namespace ucilib {

namespace {

int setSection(uci_package* p, const Change& change)
{
    uci_section* s = findSection(p, change.section);
    if (!*change.value) {
        if (s)
            freeSection(s);
        return UCI_OK;
    }
    if (!validType(change.value))
        return UCI_ERR_INVAL;
    if (s) {
        s->anonymous = false; // its generated name is its own from now on
        return setType(s, change.value) ? UCI_OK : UCI_ERR_MEM;
    }
    s = newSection(p, change.value, change.section);
    if (!s)
        return UCI_ERR_MEM;
    s->anonymous = change.kind == UCI_CHANGE_ADD_SECTION;
    return UCI_OK;
}

int setOption(uci_section* s, const Change& change)
{
    if (*change.value)
        return putOption(s, change.option, change.value) ? UCI_OK : UCI_ERR_MEM;
    if (uci_option* o = findOption(s, change.option))
        freeOption(o);
    return UCI_OK;
}

int deleteFrom(uci_section* s, const Change& change)
{
    if (!change.option) {
        freeSection(s);
        return UCI_OK;
    }
    uci_option* o = findOption(s, change.option);
    if (!o)
        return UCI_ERR_NOTFOUND;
    freeOption(o);
    return UCI_OK;
}

void removeEqualItems(uci_section* s, const Change& change)
{
    uci_option* o = findOption(s, change.option);
    if (!o || o->type != UCI_TYPE_LIST)
        return;
    uci_element *item = nullptr, *next = nullptr;
    uci_foreach_element_safe (&o->v.list, next, item) {
        if (strcmp(item->name, change.value) == 0)
            freeItem(item);
    }
}

// A change that needs its section, to the section itself.
int applyToSection(uci_section* s, const Change& change)
{
    switch (change.kind) {
    case UCI_CHANGE_SET:
        return setOption(s, change);
    case UCI_CHANGE_DELETE:
        return deleteFrom(s, change);
    case UCI_CHANGE_ADD_LIST:
        return putListItem(s, change.option, change.value) ? UCI_OK : UCI_ERR_MEM;
    case UCI_CHANGE_DEL_LIST:
        removeEqualItems(s, change);
        return UCI_OK;
    case UCI_CHANGE_ADD_SECTION:
        break; // makes a section, and has no option
    }
    return UCI_ERR_INVAL;
}

} // namespace

int applyChange(uci_package* p, const Change& change)
{
    const bool list = change.kind == UCI_CHANGE_ADD_LIST || change.kind == UCI_CHANGE_DEL_LIST;
    if (!validName(change.section) || (change.option && !validName(change.option)) || (list && !change.option) ||
        (!change.value && change.kind != UCI_CHANGE_DELETE))
        return UCI_ERR_INVAL;
    if (!change.option && (change.kind == UCI_CHANGE_SET || change.kind == UCI_CHANGE_ADD_SECTION))
        return setSection(p, change);
    uci_section* s = findSection(p, change.section);
    if (!s)
        return change.kind == UCI_CHANGE_DELETE ? UCI_ERR_NOTFOUND : UCI_ERR_INVAL;
    return applyToSection(s, change);
}

} // namespace ucilib

using namespace ucilib;

namespace {

// Applies a change and records it: both, or neither. Stores the record in `delta`.
int makeChange(uci_package* p, const Change& change, uci_delta*& delta)
{
    delta = newDelta(change);
    if (!delta)
        return UCI_ERR_MEM;
    // With the record's copies of the texts: the caller's may belong to what the change frees.
    const int code = applyChange(p, {change.kind, delta->section, delta->e.name, delta->value});
    if (code == UCI_OK)
        listInsertBefore(p->delta, delta->e.list);
    else
        freeDelta(delta);
    return code;
}

// Makes the pointer record complete: what the user filled in by hand is looked up.
int resolve(uci_context* ctx, uci_ptr* ptr)
{
    if (!ptr)
        return UCI_ERR_INVAL;
    return ptr->flags & uci_ptr::UCI_LOOKUP_DONE ? int(UCI_OK) : uci_lookup_ptr(ctx, ptr, nullptr, false);
}

// Makes a change to what the pointer record names, and brings the pointer record up to date.
int changePtr(uci_ptr* ptr, uci_change kind, const char* value)
{
    if (!ptr->section)
        return UCI_ERR_INVAL;
    const bool borrowsSection = ptr->s && ptr->section == ptr->s->e.name;
    const bool borrowsOption = ptr->o && ptr->option == ptr->o->e.name;
    uci_delta* delta = nullptr;
    const int code = makeChange(ptr->p, {kind, ptr->section, ptr->option, value}, delta);
    if (code != UCI_OK)
        return code;

    ptr->s = findSection(ptr->p, delta->section);
    ptr->o = ptr->s && delta->e.name ? findOption(ptr->s, delta->e.name) : nullptr;
    ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &ptr->p->e;
    if (borrowsSection)
        ptr->section = ptr->s ? ptr->s->e.name : delta->section;
    if (borrowsOption)
        ptr->option = ptr->o ? ptr->o->e.name : delta->e.name;
    return UCI_OK;
}

bool isUnchanged(const uci_ptr* ptr)
{
    if (ptr->option)
        return ptr->o && ptr->o->type == UCI_TYPE_STRING && strcmp(ptr->o->v.string, ptr->value) == 0;
    return ptr->s && strcmp(ptr->s->type, ptr->value) == 0;
}

int set(uci_ptr* ptr)
{
    if (!ptr->section || !ptr->value)
        return UCI_ERR_INVAL;
    if (ptr->option && !ptr->s)
        return UCI_ERR_INVAL;
    const bool byIndex = (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) != 0;
    if (isUnchanged(ptr) || (!ptr->s && byIndex)) // no section is made by an index
        return UCI_OK;
    if (*ptr->value)
        return changePtr(ptr, UCI_CHANGE_SET, ptr->value);
    const bool exists = ptr->option ? ptr->o != nullptr : ptr->s != nullptr;
    return exists ? changePtr(ptr, UCI_CHANGE_DELETE, nullptr) : UCI_OK;
}

int remove(uci_ptr* ptr)
{
    if (!ptr->section)
        return UCI_ERR_INVAL;
    if (ptr->option ? !ptr->o : !ptr->s)
        return UCI_ERR_NOTFOUND;
    if (ptr->o && ptr->o->type == UCI_TYPE_LIST && ptr->value && *ptr->value)
        return UCI_ERR_INVAL; // would name one element of the list, and not all of it
    return changePtr(ptr, UCI_CHANGE_DELETE, nullptr);
}

int addToList(uci_ptr* ptr)
{
    return changePtr(ptr, UCI_CHANGE_ADD_LIST, ptr->value);
}

int removeFromList(uci_ptr* ptr)
{
    if (!ptr->s || !ptr->option || !ptr->value)
        return UCI_ERR_INVAL;
    if (!ptr->o || ptr->o->type != UCI_TYPE_LIST)
        return UCI_OK;
    return changePtr(ptr, UCI_CHANGE_DEL_LIST, ptr->value);
}

/// Looks up what the pointer record names and changes it; the context keeps the code.
int edit(uci_context* ctx, uci_ptr* ptr, int (*change)(uci_ptr*))
{
    const int code = resolve(ctx, ptr);
    return result(ctx, code == UCI_OK ? change(ptr) : code);
}

} // namespace

int uci_set(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, ptr, set);
}

int uci_delete(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, ptr, remove);
}

int uci_add_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, ptr, addToList);
}

int uci_del_list(struct uci_context* ctx, struct uci_ptr* ptr)
{
    return edit(ctx, ptr, removeFromList);
}

int uci_add_section(struct uci_context* ctx, struct uci_package* p, const char* type, struct uci_section** res)
{
    if (!p || !type || !res)
        return result(ctx, UCI_ERR_INVAL);
    uci_section* s = newSection(p, type, nullptr);
    uci_delta* delta = s ? newDelta({UCI_CHANGE_ADD_SECTION, s->e.name, nullptr, type}) : nullptr;
    if (!delta) {
        if (s)
            freeSection(s);
        return result(ctx, UCI_ERR_MEM);
    }
    listInsertBefore(p->delta, delta->e.list);
    *res = s;
    return result(ctx, UCI_OK);
}
