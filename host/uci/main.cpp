#include "command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

struct Command {
    const char* name;
    size_t minArguments;
    size_t maxArguments;
    CommandFunction* run;
};

const Command COMMANDS[] = {
    {"show", 0, 1, show},           {"get", 1, 1, get},          {"set", 1, 1, set},
    {"add_list", 1, 1, addList},    {"del_list", 1, 1, delList}, {"delete", 1, 1, deleteTarget},
    {"rename", 1, 1, renameTarget}, {"reorder", 1, 1, reorder},  {"add", 2, 2, addSection},
    {"commit", 0, 1, commit},       {"changes", 0, 1, changes},  {"export", 0, 1, exportPackages},
};

ExitStatus usage(const Session& session, ExitStatus status)
{
    fprintf(stderr,
            "Usage: %s [OPTION]... COMMAND [ARGUMENT]\n"
            "\n"
            "Commands:\n"
            "  show [PACKAGE[.SECTION[.OPTION]]]     print types and values\n"
            "  get PACKAGE.SECTION[.OPTION]          print one value, or a section's type\n"
            "  set PACKAGE.SECTION[.OPTION]=VALUE    set an option, or make a section of type VALUE\n"
            "  add_list PACKAGE.SECTION.OPTION=VALUE append to a list\n"
            "  del_list PACKAGE.SECTION.OPTION=VALUE remove all equal values from a list\n"
            "  delete PACKAGE.SECTION[.OPTION]       delete an option or a section\n"
            "  rename PACKAGE.SECTION[.OPTION]=NAME  give it another name\n"
            "  reorder PACKAGE.SECTION=INDEX         move a section, counting from 0\n"
            "  add PACKAGE TYPE                      add an anonymous section, print its name\n"
            "  changes [PACKAGE]                     print changes that are not committed\n"
            "  commit [PACKAGE]                      write the changes to the configuration file\n"
            "  export [PACKAGE]                      print the configuration file's text\n"
            "\n"
            "A section may be named by type and index: @TYPE[0], from the end @TYPE[-1].\n"
            "\n"
            "Options:\n"
            "  -c DIR   configuration files (%s)\n"
            "  -C DIR   files that override them (%s); '' for none\n"
            "  -t DIR   where changes are saved until they are committed (%s)\n"
            "  -P DIR   the same, and commit does nothing\n"
            "  -p DIR   another directory to read changes from\n"
            "  -d TEXT  put TEXT between the values of a list\n"
            "  -n       name anonymous sections on export\n"
            "  -q       print no errors\n"
            "  -X       show the generated names of anonymous sections\n",
            session.program, UCI_CONFDIR, UCI_CONF2DIR, UCI_SAVEDIR);
    return status;
}

// One option; false when there is no such one, or it fails.
bool applyOption(Session& session, int option)
{
    uci_context* ctx = session.ctx();
    int code = UCI_OK;
    switch (option) {
    case 'c':
        code = uci_set_confdir(ctx, optarg);
        break;
    case 'C':
        code = uci_set_conf2dir(ctx, *optarg ? optarg : nullptr);
        break;
    case 'P':
        session.commits = false;
        [[fallthrough]];
    case 't':
        code = uci_set_savedir(ctx, optarg);
        break;
    case 'p':
        code = uci_add_delta_path(ctx, optarg);
        break;
    case 'd':
        session.separator = optarg;
        break;
    case 'n':
        ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
        break;
    case 'q':
        session.quiet = true;
        break;
    case 'X':
        session.generatedNames = true;
        break;
    default:
        return false;
    }
    return code == UCI_OK || code == UCI_ERR_DUPLICATE;
}

} // namespace

ExitStatus fail(const Session& session)
{
    if (!session.quiet)
        uci_perror(session.ctx(), session.program);
    return EXIT_FAILED;
}

ExitStatus fail(const Session& session, int code)
{
    session.ctx()->err = code;
    return fail(session);
}

bool lookUp(Session& session, std::string& argument, uci_ptr& ptr)
{
    if (uci_lookup_ptr(session.ctx(), &ptr, argument.data(), true) == UCI_OK)
        return true;
    fail(session);
    return false;
}

ExitStatus forPackages(Session& session, const Arguments& arguments, const std::function<bool(uci_package*)>& action)
{
    uci_context* ctx = session.ctx();
    Arguments names = arguments;
    if (names.empty()) {
        char** list = nullptr;
        if (uci_list_configs(ctx, &list) != UCI_OK)
            return fail(session);
        for (char** name = list; *name; ++name)
            names.emplace_back(*name);
        free(list);
    }
    ExitStatus status = EXIT_OK;
    for (const std::string& name : names) {
        uci_package* p = nullptr;
        if (uci_load(ctx, name.c_str(), &p) != UCI_OK || !action(p))
            status = fail(session);
    }
    return status;
}

int main(int argc, char** argv)
{
    Session session;
    session.program = argv[0];
    if (!session.context) {
        fprintf(stderr, "%s: Out of memory\n", argv[0]);
        return EXIT_FAILED;
    }
    for (int option = 0; (option = getopt(argc, argv, "+c:C:t:P:p:d:nqX")) != -1;) {
        if (!applyOption(session, option))
            return usage(session, EXIT_USAGE);
    }
    if (optind >= argc)
        return usage(session, EXIT_OK);
    Arguments arguments(argv + optind + 1, argv + argc);
    for (const Command& command : COMMANDS) {
        if (strcmp(command.name, argv[optind]) != 0)
            continue;
        if (arguments.size() < command.minArguments || arguments.size() > command.maxArguments)
            break;
        const ExitStatus status = command.run(session, arguments);
        if (fflush(stdout) != 0 || ferror(stdout)) // a full disk, or nobody reads
            return fail(session, UCI_ERR_IO);
        return status;
    }
    return usage(session, EXIT_USAGE);
}
