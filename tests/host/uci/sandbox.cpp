#include "sandbox.h"

#include "process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

fs::path makeFolder()
{
    std::string path = fs::temp_directory_path() / "uci_test-XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("no temporary folder");
    return path;
}

} // namespace

Sandbox::Sandbox() : root(makeFolder())
{
    fs::create_directory(configDir);
}

Sandbox::~Sandbox()
{
    std::error_code ignored;
    fs::remove_all(root, ignored);
}

void writeFile(const fs::path& path, std::string_view text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const fs::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void Sandbox::setChanges(std::string_view text) const
{
    fs::create_directory(saveDir);
    writeFile(changeFile, text);
}

Context Sandbox::context() const
{
    Context ctx(uci_alloc_context());
    if (!ctx || uci_set_confdir(ctx.get(), configDir.c_str()) || uci_set_savedir(ctx.get(), saveDir.c_str()))
        throw std::runtime_error("no context");
    return ctx;
}

CommandResult Sandbox::run(const std::vector<std::string>& arguments) const
{
    std::vector<std::string> all = {"uci", "-c", configDir, "-t", saveDir};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Process command(all, Process::Stderr::Pipe, UCI_PROGRAM);
    const int status = command.wait();
    return {status, command.out, command.err};
}

std::string Sandbox::show() const
{
    const CommandResult result = run({"show", "p"});
    return result.status == 0 ? result.out : result.err;
}

uci_package* load(const Context& ctx)
{
    uci_package* p = nullptr;
    return uci_load(ctx.get(), "p", &p) == UCI_OK ? p : nullptr;
}

int edit(const Context& ctx, ChangeCall* call, std::string tuple)
{
    uci_ptr ptr;
    const int code = uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), true);
    return code == UCI_OK ? call(ctx.get(), &ptr) : code;
}

std::vector<std::string> values(const Context& ctx, std::string tuple)
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

std::string exported(const Context& ctx, uci_package* p)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    uci_export(ctx.get(), stream, p, false);
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}
