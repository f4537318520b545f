/// The commands that change something and are not one call of the library.
#include "command.h"

#include <cstdio>

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
    return forPackages(session, arguments,
                       [&](uci_package* p) { return uci_commit(session.ctx(), &p, false) == UCI_OK; });
}
