// A configuration directory and a save directory of a test's own, and what tests do in them.
#pragma once

#include <uci.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct ContextDeleter {
    void operator()(uci_context* ctx) const
    {
        uci_free_context(ctx);
    }
};
using Context = std::unique_ptr<uci_context, ContextDeleter>;

using ChangeCall = int(uci_context*, uci_ptr*);

struct CommandResult {
    int status; // of the exit; 1000 plus the signal when one ended it
    std::string out;
    std::string err;
};

void writeFile(const std::filesystem::path& path, std::string_view text);
std::string readFile(const std::filesystem::path& path);

// Everything lies under one folder, which goes with the object. The package is called p.
class Sandbox {
public:
    Sandbox();
    explicit Sandbox(std::string_view package) : Sandbox()
    {
        setFile(package);
    }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;
    ~Sandbox();

    const std::filesystem::path root;
    const std::filesystem::path configDir = root / "config";
    const std::filesystem::path saveDir = root / "save";
    const std::filesystem::path file = configDir / "p";
    const std::filesystem::path changeFile = saveDir / "p";

    void setFile(std::string_view text) const
    {
        writeFile(file, text);
    }
    void setChanges(std::string_view text) const;
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
    Context context() const;

    // Runs the command `uci` on these directories.
    CommandResult run(const std::vector<std::string>& arguments) const;
    // The output of `show p`, or the error.
    std::string show() const;
};

// Loads package p; null when that fails.
uci_package* load(const Context& ctx);

// Looks a tuple up (extended) and makes the change; the first result that is not UCI_OK.
int edit(const Context& ctx, ChangeCall* call, std::string tuple);

// All values of an option, as they are in memory.
std::vector<std::string> values(const Context& ctx, std::string tuple);

// The package as its file would hold it.
std::string exported(const Context& ctx, uci_package* p);
