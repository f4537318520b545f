/// From a package to its file's text.
#include "internal.h"

using namespace ucilib;

namespace {

void writeOption(Text& out, const uci_option* o)
{
    if (o->type == UCI_TYPE_STRING) {
        (out << "\toption " << o->e.name << ' ').quoted(o->v.string) << '\n';
        return;
    }
    uci_element* item = nullptr;
    uci_foreach_element (&o->v.list, item) {
        (out << "\tlist " << o->e.name << ' ').quoted(item->name) << '\n';
    }
}

void writeSection(Text& out, const uci_section* s)
{
    out << "\nconfig " << s->type;
    if (!s->anonymous)
        (out << ' ').quoted(s->e.name);
    out << '\n';
    uci_element* e = nullptr;
    uci_foreach_element (&s->options, e) {
        writeOption(out, recordOf<uci_option>(e));
    }
}

} // namespace

void ucilib::writePackage(Text& out, const uci_package* p)
{
    uci_element* e = nullptr;
    uci_foreach_element (&p->sections, e) {
        writeSection(out, recordOf<uci_section>(e));
    }
    out << '\n';
}

int uci_export(struct uci_context* ctx, FILE* stream, struct uci_package* package, bool header)
{
    if (!stream)
        return result(ctx, UCI_ERR_INVAL);
    Text text;
    uci_element* e = nullptr;
    uci_foreach_element (&ctx->root, e) {
        uci_package* p = recordOf<uci_package>(e);
        if (package && p != package)
            continue;
        if (header)
            text << "package " << p->e.name << '\n';
        writePackage(text, p);
    }
    if (text.failed())
        return result(ctx, UCI_ERR_MEM);
    const std::string_view all = text.view();
    const bool written = fwrite(all.data(), 1, all.size(), stream) == all.size();
    return result(ctx, written ? UCI_OK : UCI_ERR_IO);
}
