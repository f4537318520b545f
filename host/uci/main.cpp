#include "command.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace {

struct Command {
    const char* name;
    size_t minArguments;
    size_t maxArguments;
    CommandFunction* run;
};

const Command COMMANDS[] = {
    {"show", 0, 1, show},
    {"get", 1, 1, get},
    {"set", 1, 1, change<uci_set>},
    {"add_list", 1, 1, change<uci_add_list>},
    {"del_list", 1, 1, change<uci_del_list>},
    {"delete", 1, 1, change<uci_delete>},
    {"add", 2, 2, addSection},
    {"commit", 0, 1, commit},
    {"changes", 0, 1, changes},
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
            "  add PACKAGE TYPE                      add an anonymous section, print its name\n"
            "  changes [PACKAGE]                     print changes that are not committed\n"
            "  commit [PACKAGE]                      write the changes to the configuration file\n"
            "\n"
            "A section may be named by type and index: @TYPE[0], from the end @TYPE[-1].\n"
            "\n"
            "Options:\n"
            "  -c DIR   configuration files (%s)\n"
            "  -t DIR   where changes are saved until they are committed (%s)\n"
            "  -q       print no errors\n",
            session.program, UCI_CONFDIR, UCI_SAVEDIR);
    return status;
}

// One option; false when there is no such one, or it fails.
bool applyOption(Session& session, int option)
{
    switch (option) {
    case 'c':
        return uci_set_confdir(session.ctx(), optarg) == UCI_OK;
    case 't':
        return uci_set_savedir(session.ctx(), optarg) == UCI_OK;
    case 'q':
        return session.quiet = true;
    default:
        return false;
    }
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
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(ctx->confdir, error)) {
            const std::string name = entry.path().filename();
            if (entry.is_regular_file(error) && name.find('.') == name.npos) // a dot ends a package's name in a tuple
                names.push_back(name);
        }
        std::ranges::sort(names);
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
    for (int option = 0; (option = getopt(argc, argv, "+c:t:q")) != -1;) {
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
