// The configuration library: any file, any file of changes, and any tuples to change it by. The parts of an input are
// parted by lines "==": the file, the changes, then a line for each change to make.

#include "fuzz.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

extern "C" {
#include <uci.h>
}

namespace {

constexpr size_t MAX_CHANGES = 30;

struct FreeContext {
    void operator()(uci_context* context) const
    {
        uci_free_context(context);
    }
};
using OwnedContext = std::unique_ptr<uci_context, FreeContext>;

std::string folder(const char* name)
{
    const std::string path = fuzzFolder() + "/" + name;
    mkdir(path.c_str(), 0700);
    return path;
}

OwnedContext openContext(const char* config, const char* changes)
{
    OwnedContext context(uci_alloc_context());
    uci_set_confdir(context.get(), folder(config).c_str());
    uci_set_savedir(context.get(), folder(changes).c_str());
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

/// An element as the record that it begins; the library's own macros cast the C way.
template <typename Record>
const Record* recordOf(const uci_element* element)
{
    return reinterpret_cast<const Record*>(element);
}

/// A package as a text that says all that is to be stored of it.
std::string describe(uci_package* package)
{
    std::string text;
    uci_element* section = nullptr;
    uci_element* option = nullptr;
    uci_element* item = nullptr;
    const auto add = [&](char kind, const char* word) {
        const std::string copy = word;
        text += kind + std::to_string(copy.size()) + ":" + copy;
    };
    uci_foreach_element (&package->sections, section) {
        add('t', recordOf<uci_section>(section)->type);
        add(recordOf<uci_section>(section)->anonymous ? 'a' : 's',
            recordOf<uci_section>(section)->anonymous ? "" : section->name);
        uci_foreach_element (&recordOf<uci_section>(section)->options, option) {
            const uci_option* one = recordOf<uci_option>(option);
            if (one->type == UCI_TYPE_LIST && uci_list_empty(&one->v.list))
                continue; // has no form in a file
            add(one->type == UCI_TYPE_LIST ? 'l' : 'o', option->name);
            if (one->type == UCI_TYPE_STRING) {
                add('v', one->v.string);
                continue;
            }
            uci_foreach_element (&one->v.list, item) {
                add('i', item->name);
            }
        }
    }
    return text;
}

std::string exported(uci_context* context, uci_package* package)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    FUZZ_CHECK(uci_export(context, stream, package, false) == UCI_OK, "not exported\n");
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
        if (strpbrk(recordOf<uci_section>(section)->type, "'\"\\#;"))
            return false;
    }
    return true;
}

/// What is exported and read again is the same, and is exported the same.
void checkExport(uci_context* context, uci_package* package)
{
    const std::string text = exported(context, package);
    writeFile(folder("second") + "/pkg", text);
    const OwnedContext other = openContext("second", "none");
    uci_package* again = nullptr;
    FUZZ_CHECK(uci_load(other.get(), "pkg", &again) == UCI_OK, "what was exported cannot be read:\n%s\n", text.c_str());
    FUZZ_CHECK(describe(again) == describe(package), "another package:\n%s\n", text.c_str());
    FUZZ_CHECK(exported(other.get(), again) == text, "another text\n");
}

/// What another process reads: file and saved changes.
std::string seenByOthers()
{
    const OwnedContext other = openContext("config", "changes");
    uci_package* package = nullptr;
    FUZZ_CHECK(uci_load(other.get(), "pkg", &package) == UCI_OK, "no package\n");
    return describe(package);
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
    switch (line[0]) {
    case 's':
        (void)uci_set(context, &ptr);
        break;
    case 'd':
        (void)uci_delete(context, &ptr);
        break;
    case 'a':
        (void)uci_add_list(context, &ptr);
        break;
    case 'x':
        (void)uci_del_list(context, &ptr);
        break;
    default:
        break;
    }
}

/// Changes a package, saves and commits, and looks after each what others see.
void changeAndStore(uci_context* context, uci_package* package, const std::vector<std::string>& lines)
{
    for (size_t i = 0; i < std::min(lines.size(), MAX_CHANGES); ++i)
        change(context, lines[i]);
    if (!hasPlainTypes(package))
        return;
    const std::string memory = describe(package);
    FUZZ_CHECK(uci_save(context, package) == UCI_OK, "not saved\n");
    FUZZ_CHECK(describe(package) == memory, "saving has changed the package\n");
    FUZZ_CHECK(seenByOthers() == memory, "others see\n%s\nnot\n%s\n", seenByOthers().c_str(), memory.c_str());
    FUZZ_CHECK(uci_commit(context, &package, false) == UCI_OK, "not committed\n");
    FUZZ_CHECK(describe(package) == memory, "committing has changed the package\n");
    FUZZ_CHECK(seenByOthers() == memory, "others see\n%s\nnot\n%s\n", seenByOthers().c_str(), memory.c_str());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> parts = split(asText({data, size}), "==\n");
    parts.resize(3);
    writeFile(folder("config") + "/pkg", parts[0]);
    const std::string changes = folder("changes") + "/pkg";
    (void)unlink(changes.c_str());
    if (!parts[1].empty())
        writeFile(changes, parts[1]);

    const OwnedContext context = openContext("config", "changes");
    uci_package* package = nullptr;
    if (uci_load(context.get(), "pkg", &package) != UCI_OK) {
        FUZZ_CHECK(context->err == UCI_ERR_PARSE && !package, "error %d\n", context->err);
        char* text = nullptr;
        uci_get_errorstr(context.get(), &text, "fuzz");
        FUZZ_CHECK(text, "no text\n");
        free(text);
        return 0;
    }
    if (!hasPlainTypes(package))
        return 0;
    checkExport(context.get(), package);
    changeAndStore(context.get(), package, split(parts[2], "\n"));
    FUZZ_CHECK(uci_load(context.get(), "pkg", nullptr) == UCI_ERR_DUPLICATE, "loaded twice\n");
    return 0;
}
