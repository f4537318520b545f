/// From a configuration file's text to a package.
#include "internal.h"

#include <algorithm>
#include <cstring>

namespace ucilib {

namespace {

class Parser {
public:
    Parser(uci_context* ctx, uci_package* p, std::span<char> text) : ctx_(ctx), package_(p), words_(text)
    {
    }

    int run();

private:
    uci_context* ctx_;
    uci_package* package_;
    Words words_;
    uci_section* section_ = nullptr; // that of the last config line

    // The command's line and byte: where what is wrong with the command as a whole is reported.
    int commandLine_ = 1;
    int commandByte_ = 0;

    int fail(const char* reason, int line, int byte);
    int failHere(const char* reason);
    int failCommand(const char* reason);
    int runCommand();
    int noMoreWords();
    int readPackageLine(const char* name);
    int readConfig(const char* type);
    int readOption(const char* name, bool list);
};

int Parser::fail(const char* reason, int line, int byte)
{
    ctx_->parse_reason = reason;
    ctx_->parse_line = line;
    ctx_->parse_byte = byte;
    return UCI_ERR_PARSE;
}

int Parser::failHere(const char* reason)
{
    return fail(words_.fault ? words_.fault : reason, words_.line, words_.byte());
}

int Parser::failCommand(const char* reason)
{
    return fail(reason, commandLine_, commandByte_);
}

bool isKeyword(const char* word, const char* keyword)
{
    return strcmp(word, keyword) == 0 || (word[0] == keyword[0] && !word[1]);
}

int Parser::run()
{
    while (words_.nextCommand()) {
        const int code = runCommand();
        if (code != UCI_OK)
            return code;
    }
    return UCI_OK;
}

int Parser::runCommand()
{
    const char* command = words_.next();
    if (!command)
        return failHere(nullptr);
    commandLine_ = words_.wordLine;
    commandByte_ = words_.wordByte;

    const bool list = isKeyword(command, "list");
    const bool option = isKeyword(command, "option");
    const bool config = isKeyword(command, "config");
    if (words_.escaped || (!list && !option && !config && !isKeyword(command, "package")))
        return failCommand("invalid command");
    if ((list || option) && !section_)
        return failCommand("option/list command found before the first section");
    const char* argument = words_.next();
    if (words_.fault)
        return failHere(nullptr);
    if (!argument)
        return failCommand("invalid command");
    if (list || option)
        return readOption(argument, list);
    return config ? readConfig(argument) : readPackageLine(argument);
}

int Parser::noMoreWords()
{
    if (words_.next() || words_.fault)
        return failHere("too many arguments");
    return UCI_OK;
}

// The file's name is the package's name; the line is checked all the same.
int Parser::readPackageLine(const char* name)
{
    if (!validPackageLine(name))
        return failHere("invalid character in name field");
    return noMoreWords();
}

int Parser::readConfig(const char* type)
{
    if (!*type)
        return failHere("insufficient arguments");
    if (!validType(type))
        return failHere("invalid character in type field");
    const char* name = words_.next();
    if (words_.fault)
        return failHere(nullptr);
    if (name && *name && !validName(name))
        return failHere("invalid character in name field");
    const int code = noMoreWords();
    if (code != UCI_OK)
        return code;

    const bool named = name && *name;
    section_ = named ? findSection(package_, name) : nullptr;
    if (section_ && strcmp(section_->type, type) != 0)
        return failHere("section of different type overwrites prior section with same name");
    if (!section_)
        section_ = newSection(package_, type, named ? name : nullptr);
    return section_ ? UCI_OK : UCI_ERR_MEM;
}

int Parser::readOption(const char* name, bool list)
{
    if (!*name)
        return failHere("insufficient arguments");
    if (!validName(name))
        return failHere("invalid character in name field");
    const char* value = words_.next();
    if (words_.fault)
        return failHere(nullptr);
    const int code = noMoreWords();
    if (code != UCI_OK)
        return code;

    if (!value)
        value = "";
    if (list)
        return putListItem(section_, name, value) ? UCI_OK : UCI_ERR_MEM;
    if (!*value)
        return UCI_OK; // an option of no value does not exist, and leaves an earlier one alone
    return putOption(section_, name, value) ? UCI_OK : UCI_ERR_MEM;
}

// A file of NULs is what some file systems leave of one that was not on the disk yet when the power went.
bool refuseNul(uci_context* ctx, std::string_view text)
{
    const size_t nul = text.find('\0');
    if (nul == text.npos)
        return false;
    const std::string_view before = slice(text, 0, nul);
    const size_t lineStart = before.rfind('\n') + 1; // npos + 1 is 0
    ctx->parse_reason = "NUL byte";
    ctx->parse_line = 1 + static_cast<int>(std::count(before.begin(), before.end(), '\n'));
    ctx->parse_byte = static_cast<int>(nul - lineStart);
    return true;
}

} // namespace

int parsePackage(uci_context* ctx, uci_package* p, std::span<char> text)
{
    if (refuseNul(ctx, {text.data(), text.size()}))
        return UCI_ERR_PARSE;
    return Parser(ctx, p, text).run();
}

} // namespace ucilib
