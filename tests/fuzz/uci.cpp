// The configuration library: any file, any file of changes, and any tuples to change it by. The parts of an input are
// parted by lines "==": the file, the changes, then a line for each change to make.

#include "fuzz.h"

#include <string.h>

#include <memory>
#include <vector>

extern "C" {
#include <uci.h>
}

namespace {

constexpr size_t MAX_CHANGES = 30;

using OwnedContext = std::unique_ptr<uci_context, void (*)(uci_context*)>;

OwnedContext openContext(const char* config, const char* changes)
{
    OwnedContext context(uci_alloc_context(), uci_free_context);
    uci_set_confdir(context.get(), rigFolder(config).c_str());
    uci_set_savedir(context.get(), rigFolder(changes).c_str());
    return context;
}

std::vector<std::string> split(std::string text, const std::string& separator)
{
    std::vector<std::string> parts;
    for (size_t end = 0; (end = text.find(separator)) != text.npos; text.erase(0, end + separator.size()))
        parts.push_back(text.substr(0, end));
    parts.push_back(text);
    return parts;
}

/// A package as a text that says all that is to be stored of it.
std::string exported(uci_context* context, uci_package* package)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    RIG_CHECK(uci_export(context, stream, package, false) == UCI_OK, "not exported\n");
    fclose(stream);
    std::string result(text, size);
    free(text);
    return result;
}

/// Whether its file says all of a package: a type is written as it is, even one that holds quotes or comments.
bool hasPlainTypes(uci_package* package)
{
    uci_element* section = nullptr;
    uci_foreach_element (&package->sections, section) {
        // The library's own macro casts the C way.
        if (strpbrk(reinterpret_cast<const uci_section*>(section)->type, "'\"\\#;"))
            return false;
    }
    return true;
}

/// What another process reads from a file and its saved changes.
std::string seenByOthers(const char* config, const char* changes)
{
    const OwnedContext other = openContext(config, changes);
    uci_package* package = nullptr;
    RIG_CHECK(uci_load(other.get(), "pkg", &package) == UCI_OK, "no package\n");
    return exported(other.get(), package);
}

/// One change: a letter for what to do, and a tuple.
void change(uci_context* context, const std::string& line)
{
    if (line.empty())
        return;
    std::vector<char> tuple(line.c_str() + 1, line.c_str() + line.size() + 1);
    uci_ptr ptr{};
    if (uci_lookup_ptr(context, &ptr, tuple.data(), true) != UCI_OK)
        return;
    constexpr std::pair<char, int (*)(uci_context*, uci_ptr*)> CHANGES[] = {
        {'s', uci_set}, {'d', uci_delete}, {'a', uci_add_list}, {'x', uci_del_list}};
    for (const auto& [letter, function] : CHANGES)
        if (line[0] == letter)
            (void)function(context, &ptr);
}

/// Changes a package, saves and commits, and looks after each what others see.
void changeAndStore(uci_context* context, uci_package* package, const std::vector<std::string>& lines)
{
    for (size_t i = 0; i < std::min(lines.size(), MAX_CHANGES); ++i)
        change(context, lines[i]);
    if (!hasPlainTypes(package))
        return;
    const std::string memory = exported(context, package);
    const auto check = [&](const char* what) {
        RIG_CHECK(exported(context, package) == memory, "%s has changed the package\n", what);
        const std::string seen = seenByOthers("config", "changes");
        RIG_CHECK(seen == memory, "after %s others see\n%s\nnot\n%s\n", what, seen.c_str(), memory.c_str());
    };
    RIG_CHECK(uci_save(context, package) == UCI_OK, "not saved\n");
    check("saving");
    RIG_CHECK(uci_commit(context, &package, false) == UCI_OK, "not committed\n");
    check("committing");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> parts = split(asText({data, size}), "==\n");
    parts.resize(3);
    writeFile(rigFolder("config") + "/pkg", parts[0]);
    writeFile(rigFolder("changes") + "/pkg", parts[1]);

    const OwnedContext context = openContext("config", "changes");
    uci_package* package = nullptr;
    if (uci_load(context.get(), "pkg", &package) != UCI_OK) {
        RIG_CHECK(context->err == UCI_ERR_PARSE && !package, "error %d\n", context->err);
        char* text = nullptr;
        uci_get_errorstr(context.get(), &text, "fuzz");
        RIG_CHECK(text, "no text\n");
        free(text);
        return 0;
    }
    if (!hasPlainTypes(package))
        return 0;
    const std::string text = exported(context.get(), package);
    writeFile(rigFolder("second") + "/pkg", text);
    RIG_CHECK(seenByOthers("second", "none") == text, "read again it is another one:\n%s\n", text.c_str());
    changeAndStore(context.get(), package, split(parts[2], "\n"));
    RIG_CHECK(uci_load(context.get(), "pkg", nullptr) == UCI_ERR_DUPLICATE, "loaded twice\n");
    return 0;
}
