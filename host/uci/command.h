/// What the sources of the command `uci` share. One thread.
#pragma once

#include <uci.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Exit statuses.
enum ExitStatus : int { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 255 };

struct ContextDeleter {
    void operator()(uci_context* ctx) const
    {
        uci_free_context(ctx);
    }
};

/// The context, and the options in front of the command.
struct Session {
    std::unique_ptr<uci_context, ContextDeleter> context{uci_alloc_context()};
    const char* program = "uci";
    bool quiet = false; ///< no error texts

    [[nodiscard]] uci_context* ctx() const
    {
        return context.get();
    }
};

using Arguments = std::vector<std::string>;

/// A command with its arguments; prints what it has to, errors too, and returns the exit status.
using CommandFunction = ExitStatus(Session& session, Arguments& arguments);

// These read; those with an optional argument do without it for every package (show.cpp).
CommandFunction show;
CommandFunction get;
CommandFunction changes;

// These change, and save the change at once (edit.cpp).
CommandFunction addSection;
CommandFunction commit;

/// Reports the context's error, and returns EXIT_FAILED.
ExitStatus fail(const Session& session);

/// The same for an error of the command's own.
ExitStatus fail(const Session& session, int code);

/// Looks an argument up, which is split in place; reports what fails.
bool lookUp(Session& session, std::string& argument, uci_ptr& ptr);

/// A command that changes what its argument names.
template <int (*CHANGE)(uci_context*, uci_ptr*)>
ExitStatus change(Session& session, Arguments& arguments)
{
    uci_ptr ptr;
    if (!lookUp(session, arguments[0], ptr))
        return EXIT_FAILED;
    uci_context* ctx = session.ctx();
    return CHANGE(ctx, &ptr) == UCI_OK && uci_save(ctx, ptr.p) == UCI_OK ? EXIT_OK : fail(session);
}

/// Loads the package that the first argument names, or each one there is, and runs the action on it. Goes on behind a
/// package that cannot be loaded or whose action fails (false, with the context's error), reporting it.
ExitStatus forPackages(Session& session, const Arguments& arguments, const std::function<bool(uci_package*)>& action);
