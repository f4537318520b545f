/// The commands that change something.
#include "command.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

ExitStatus edit(Session& session, std::string& argument, const std::function<int(uci_context*, uci_ptr*)>& change)
{
    uci_ptr ptr;
    if (!lookUp(session, argument, ptr))
        return EXIT_FAILED;
    uci_context* ctx = session.ctx();
    return change(ctx, &ptr) == UCI_OK && uci_save(ctx, ptr.p) == UCI_OK ? EXIT_OK : fail(session);
}

int moveSection(uci_context* ctx, uci_ptr* ptr)
{
    ctx->err = UCI_ERR_INVAL;
    if (ptr->target != UCI_TYPE_SECTION || !ptr->value)
        return ctx->err;
    int position = 0;
    const char* end = ptr->value + strlen(ptr->value);
    if (const auto [rest, error] = std::from_chars(ptr->value, end, position); error != std::errc() || rest != end)
        return ctx->err;
    if (!ptr->s)
        return ctx->err = UCI_ERR_NOTFOUND;
    return uci_reorder_section(ctx, ptr->s, position);
}

} // namespace

ExitStatus set(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], uci_set);
}

ExitStatus addList(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], uci_add_list);
}

ExitStatus delList(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], uci_del_list);
}

ExitStatus deleteTarget(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], uci_delete);
}

ExitStatus renameTarget(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], uci_rename);
}

ExitStatus reorder(Session& session, Arguments& arguments)
{
    return edit(session, arguments[0], moveSection);
}

ExitStatus addSection(Session& session, Arguments& arguments)
{
    uci_context* ctx = session.ctx();
    uci_package* p = nullptr;
    uci_section* s = nullptr;
    int code = uci_load(ctx, arguments[0].c_str(), &p);
    if (code == UCI_OK)
        code = uci_add_section(ctx, p, arguments[1].c_str(), &s);
    if (code == UCI_OK)
        code = uci_save(ctx, p);
    if (code == UCI_OK)
        printf("%s\n", s->e.name);
    else
        (void)fail(session); // unlike the other commands, this one exits with the code
    return ExitStatus{code};
}

ExitStatus commit(Session& session, Arguments& arguments)
{
    if (!session.commits)
        return EXIT_OK;
    return forPackages(session, arguments,
                       [&](uci_package* p) { return uci_commit(session.ctx(), &p, false) == UCI_OK; });
}
