// A configuration directory and a save directory of a test's own, and what tests do in them.
#pragma once

#include "host_test.h"

#include <uci.h>

#include <memory>

using UciContext = std::unique_ptr<uci_context, void (*)(uci_context*)>;

// Everything lies under one folder, which goes with the object. The package is called p.
class Sandbox {
public:
    explicit Sandbox(const std::string& package)
    {
        create_directory(configDir);
        create_directory(saveDir);
        writeFile(file, package);
    }

    const Folder root;
    const std::filesystem::path configDir = root.path / "config";
    const std::filesystem::path saveDir = root.path / "save";
    const std::filesystem::path file = configDir / "p";
    const std::filesystem::path changeFile = saveDir / "p"; // reads as empty also when there is none

    // A context that knows these directories and no others but the default save directory.
    UciContext context() const
    {
        UciContext ctx(uci_alloc_context(), uci_free_context);
        EXPECT_EQ(uci_set_confdir(ctx.get(), configDir.c_str()) + uci_set_savedir(ctx.get(), saveDir.c_str()), 0);
        return ctx;
    }

    // Runs the command `uci` on these directories.
    Result run(const Strings& arguments) const
    {
        return ::run(Strings{UCI_PROGRAM, "-c", configDir, "-t", saveDir} + arguments);
    }
    // The output of `show p`, or the error.
    std::string show() const
    {
        const Result result = run({"show", "p"});
        return result.status == 0 ? result.out : result.err;
    }
};

// Loads package p; null when that fails.
inline uci_package* load(const UciContext& ctx)
{
    uci_package* p = nullptr;
    return uci_load(ctx.get(), "p", &p) == UCI_OK ? p : nullptr;
}

// Looks a tuple up (extended) and makes the change; the first result that is not UCI_OK.
inline int edit(const UciContext& ctx, int (*change)(uci_context*, uci_ptr*), std::string tuple)
{
    uci_ptr ptr;
    const int code = uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), true);
    return code == UCI_OK ? change(ctx.get(), &ptr) : code;
}
