/// The commands that only read.
#include "command.h"

#include "host/libuci/elements.h"

#include <cstdio>
#include <map>
#include <string_view>

namespace {

std::string quoted(std::string_view text)
{
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result + "'";
}

// The values of an option, each one through `format`, with a blank between them.
std::string joined(const uci_option* o, std::string (*format)(std::string_view))
{
    if (o->type == UCI_TYPE_STRING)
        return format(o->v.string);
    std::string result;
    const uci_element* item = nullptr;
    uci_foreach_element (&o->v.list, item) {
        if (&item->list != o->v.list.next)
            result += " ";
        result += format(item->name);
    }
    return result;
}

std::string plain(std::string_view text)
{
    return std::string(text);
}

std::string quotedIfNeeded(std::string_view text)
{
    return text.find_first_of(" \t\r\n\v\f") == text.npos ? plain(text) : quoted(text);
}

void showOption(const uci_option* o, const std::string& section)
{
    printf("%s.%s=%s\n", section.c_str(), o->e.name, joined(o, quoted).c_str());
}

void showSection(const uci_section* s, const std::string& name)
{
    printf("%s=%s\n", name.c_str(), s->type);
    const uci_element* e = nullptr;
    uci_foreach_element (&s->options, e)
        showOption(recordOf<uci_option>(e), name);
}

std::string storedName(const uci_section* s)
{
    return std::string(s->package->e.name) + "." + s->e.name;
}

void showPackage(const uci_package* p)
{
    std::map<std::string_view, int> seen; // sections of each type
    const uci_element* e = nullptr;
    uci_foreach_element (&p->sections, e) {
        const uci_section* s = recordOf<uci_section>(e);
        const int index = seen[s->type]++;
        showSection(s, s->anonymous ? std::string(p->e.name) + ".@" + s->type + "[" + std::to_string(index) + "]"
                                    : storedName(s));
    }
}

void printChange(const uci_package* p, const uci_delta* delta)
{
    printf("%s%s.%s", delta->change == UCI_CHANGE_DELETE ? "-" : "", p->e.name, delta->section);
    if (delta->e.name)
        printf(".%s", delta->e.name);
    if (!delta->value) {
        printf("\n");
        return;
    }
    const char* sign = delta->change == UCI_CHANGE_ADD_LIST ? "+=" : delta->change == UCI_CHANGE_DEL_LIST ? "-=" : "=";
    printf("%s%s\n", sign, quoted(delta->value).c_str());
}

} // namespace

ExitStatus show(Session& session, Arguments& arguments)
{
    if (arguments.empty())
        return forPackages(session, arguments, [&](uci_package* p) {
            showPackage(p);
            return true;
        });
    uci_ptr ptr;
    if (!lookUp(session, arguments[0], ptr))
        return EXIT_FAILED;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return fail(session, UCI_ERR_NOTFOUND);
    if (ptr.o)
        showOption(ptr.o, storedName(ptr.s));
    else if (ptr.s)
        showSection(ptr.s, storedName(ptr.s));
    else
        showPackage(ptr.p);
    return EXIT_OK;
}

ExitStatus get(Session& session, Arguments& arguments)
{
    uci_ptr ptr;
    if (!lookUp(session, arguments[0], ptr))
        return EXIT_FAILED;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return fail(session, UCI_ERR_NOTFOUND);
    if (ptr.o) {
        printf("%s\n", joined(ptr.o, ptr.o->type == UCI_TYPE_LIST ? quotedIfNeeded : plain).c_str());
    } else if (ptr.s) {
        printf("%s\n", ptr.s->type);
    }
    return EXIT_OK;
}

ExitStatus changes(Session& session, Arguments& arguments)
{
    uci_context* ctx = session.ctx();
    ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_SAVED_DELTA);
    return forPackages(session, arguments, [](uci_package* p) {
        const uci_element* e = nullptr;
        uci_foreach_element (&p->saved_delta, e)
            printChange(p, recordOf<uci_delta>(e));
        return true;
    });
}
