// A configuration directory and a save directory of a test's own, and what tests do in them.
#pragma once

#include "host_test.h"
#include "lab/core/files.h"

#include <uci.h>

#include <cstdlib>
#include <memory>

struct ContextDeleter {
    void operator()(uci_context* ctx) const
    {
        uci_free_context(ctx);
    }
};
using Context = std::unique_ptr<uci_context, ContextDeleter>;

using ChangeCall = int(uci_context*, uci_ptr*);

// Everything lies under one folder, which goes with the object. The package is called p.
class Sandbox {
public:
    explicit Sandbox(const std::string& package)
    {
        create_directory(configDir);
        setFile(package);
    }

    const Folder root;
    const std::filesystem::path configDir = root.path / "config";
    const std::filesystem::path saveDir = root.path / "save";
    const std::filesystem::path file = configDir / "p";
    const std::filesystem::path changeFile = saveDir / "p";

    void setFile(const std::string& text) const
    {
        writeFile(file, text);
    }
    void setChanges(const std::string& text) const
    {
        create_directory(saveDir);
        writeFile(changeFile, text);
    }
    std::string fileText() const
    {
        return readFile(file);
    }
    // Empty also when there is no change file.
    std::string changes() const
    {
        return readFile(changeFile);
    }

    // A context that knows these directories and no others but the default save directory.
    Context context() const
    {
        Context ctx(uci_alloc_context());
        EXPECT_EQ(uci_set_confdir(ctx.get(), configDir.c_str()) + uci_set_savedir(ctx.get(), saveDir.c_str()), 0);
        return ctx;
    }

    // Runs the command `uci` on these directories.
    Result run(const Strings& arguments) const
    {
        Strings all = {UCI_PROGRAM, "-c", configDir, "-t", saveDir};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return ::run(all);
    }
    // The output of `show p`, or the error.
    std::string show() const
    {
        const Result result = run({"show", "p"});
        return result.status == 0 ? result.out : result.err;
    }
};

// Loads package p; null when that fails.
inline uci_package* load(const Context& ctx)
{
    uci_package* p = nullptr;
    return uci_load(ctx.get(), "p", &p) == UCI_OK ? p : nullptr;
}

// Looks a tuple up (extended) and makes the change; the first result that is not UCI_OK.
inline int edit(const Context& ctx, ChangeCall* call, std::string tuple)
{
    uci_ptr ptr;
    const int code = uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), true);
    return code == UCI_OK ? call(ctx.get(), &ptr) : code;
}

// All values of an option, as they are in memory.
inline std::vector<std::string> values(const Context& ctx, std::string tuple)
{
    uci_ptr ptr;
    std::vector<std::string> all;
    if (uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), true) != UCI_OK || !ptr.o)
        return all;
    if (ptr.o->type == UCI_TYPE_STRING)
        return {ptr.o->v.string};
    uci_element* item;
    uci_foreach_element (&ptr.o->v.list, item)
        all.emplace_back(item->name);
    return all;
}
