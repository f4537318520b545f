/// The characters of the grammar: which names are valid, and how a text falls into commands and words.
#include "internal.h"

#include <cstring>

namespace ucilib {

namespace {

bool isNameChar(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool isGraphic(char c)
{
    return c > ' ' && c <= '~';
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

bool endsCommand(char c)
{
    return c == '\n' || c == ';' || c == '#';
}

template <typename Test>
bool allOf(const char* text, Test test)
{
    if (!*text)
        return false;
    for (; *text; ++text) {
        if (!test(*text))
            return false;
    }
    return true;
}

} // namespace

bool validName(const char* text)
{
    return allOf(text, isNameChar);
}

bool validType(const char* text)
{
    return allOf(text, isGraphic);
}

bool validPackageLine(const char* text)
{
    return allOf(text, [](char c) { return isNameChar(c) || c == '-'; });
}

bool validPackageName(const char* text)
{
    // A change file's line begins with the change's sign, ends the name with a dot, and quotes only the value.
    return allOf(text, [](char c) { return isGraphic(c) && !strchr("/.='\"\\#;", c); }) && !strchr("+-|~@^", *text);
}

Words::Words(std::span<char> text) : at_(text.data()), end_(text.data() + text.size()), lineStart_(text.data())
{
}

void Words::settle()
{
    if (!lineEnded_)
        return;
    lineEnded_ = false;
    lineStart_ = at_;
    ++line;
}

char Words::take()
{
    settle();
    lineEnded_ = *at_ == '\n';
    return *at_++;
}

void Words::skipBlanks()
{
    while (more()) {
        if (isBlank(*at_)) {
            take();
        } else if (*at_ == '\\' && end_ - at_ > 1 && at_[1] == '\n') {
            take();
            take();
        } else {
            return;
        }
    }
}

void Words::skipToLineEnd()
{
    while (more() && take() != '\n') {
    }
}

void Words::endWord()
{
    if (!more())
        return;
    if (endsCommand(*at_)) {
        commandOpen_ = false;
        skipToLineEnd(); // a semicolon makes a comment of what is behind it, too
    } else {
        take();
    }
}

bool Words::nextCommand()
{
    while (!fault) {
        skipBlanks();
        if (!more())
            return false;
        if (!endsCommand(*at_)) {
            commandOpen_ = true;
            return true;
        }
        endWord();
    }
    return false;
}

void Words::readQuoted(char quote, char*& out)
{
    while (more()) {
        char c = take();
        if (c == quote)
            return;
        if (c == '\\' && quote == '"') {
            if (!more())
                break;
            c = take();
            if (c == '\n')
                continue;
        }
        *out++ = c;
    }
    fault = quote == '"' ? "EOF with unterminated \"" : "EOF with unterminated '";
}

char* Words::next()
{
    if (!commandOpen_ || fault)
        return nullptr;
    skipBlanks();
    if (!more())
        return nullptr;
    if (endsCommand(*at_)) {
        endWord();
        return nullptr;
    }
    settle();
    wordLine = line;
    wordByte = byte();
    escaped = false;
    char* const word = at_;
    char* out = at_; // never ahead of at_: what is taken off only makes the word shorter
    while (more() && !isBlank(*at_) && !endsCommand(*at_)) {
        const char c = take();
        if (c == '\'' || c == '"') {
            readQuoted(c, out);
            if (fault)
                return nullptr;
        } else if (c != '\\') {
            *out++ = c;
        } else if (more()) {
            const char literal = take();
            if (literal != '\n')
                *out++ = literal;
            escaped = true;
        }
    }
    endWord();
    *out = '\0';
    return word;
}

size_t lineEnd(std::string_view text, size_t from)
{
    char quote = '\0';
    for (size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (quote == '\'') {
            if (c == '\'')
                quote = '\0';
        } else if (c == '\\') {
            ++i;
        } else if (quote) {
            if (c == quote)
                quote = '\0';
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == '#' || c == ';') {
            i = text.find('\n', i);
            return i == text.npos ? i : i + 1;
        } else if (c == '\n') {
            return i + 1;
        }
    }
    return text.npos;
}

} // namespace ucilib
