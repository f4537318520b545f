/// Change records and the change file.
///
/// The file holds one change a line. A commit that has the new configuration file ready appends one more line, the
/// commit mark: the digest of the new file's text. Then it renames the new file into place, and then empties the change
/// file. A process that dies in between leaves changes that are in the configuration file already; whoever reads the
/// change file next sees by the mark, if the configuration file's text has its digest, that all above it is done, and
/// does not apply it again, which would append list elements and add sections a second time. If the digest is another,
/// the rename did not happen, and the changes count. Readers that do not know the mark take it for a comment.
///
/// A process that is killed in the middle of a long write leaves a part of its lines. What is saved at once belongs
/// together, so a long save begins with a comment, too, which says how many bytes follow; with fewer, none of them
/// counts.
#include "internal.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace ucilib {

namespace {

constexpr std::string_view MARK = "#committed ";
constexpr size_t MARK_DIGITS = 16;
constexpr std::string_view SAVE_MARK = "#saved bytes: ";

struct Sign {
    char sign;
    uci_change kind;
};
// What a line begins with; a line without any of these sets something.
const Sign SIGNS[] = {
    {'-', UCI_CHANGE_DELETE},
    {'+', UCI_CHANGE_ADD_SECTION},
    {'|', UCI_CHANGE_ADD_LIST},
    {'~', UCI_CHANGE_DEL_LIST},
};

bool isMark(std::string_view line, uint64_t digest)
{
    char text[MARK_DIGITS + 1];
    snprintf(text, sizeof(text), "%016" PRIx64, digest);
    if (!beginsWith(line, MARK))
        return false;
    line.remove_prefix(MARK.size());
    return beginsWith(line, text);
}

// The bytes that are to follow a long save's first line; 0 where none begins.
size_t savedBytes(std::string_view line)
{
    size_t bytes = 0;
    if (!beginsWith(line, SAVE_MARK))
        return 0;
    line.remove_prefix(SAVE_MARK.size());
    for (const char c : line) {
        if (c < '0' || c > '9' || bytes > SIZE_MAX / 100)
            break;
        bytes = 10 * bytes + static_cast<size_t>(c - '0');
    }
    return bytes;
}

// Whether a change begins here, up to its value or the end of its line. Only then may a quote span lines: garbage with
// a stray quote in it ends with its own line.
bool changeBegins(std::string_view text)
{
    int dots = 0;
    for (const char c : text) {
        if (c == '=' || c == '\n' || c == '\r')
            return dots == 1 || dots == 2;
        if (strchr("'\"\\#; \t", c)) // and the NUL
            return false;
        dots += c == '.';
    }
    return false;
}

// Splits a word like `+p.section.option=value` in place; false when it is no change to this package.
bool parseChange(char* word, const char* package, Change& change)
{
    change = {UCI_CHANGE_SET, nullptr, nullptr, nullptr};
    for (const Sign& sign : SIGNS) {
        if (*word == sign.sign)
            change.kind = sign.kind;
    }
    if (change.kind != UCI_CHANGE_SET)
        ++word;
    if (char* value = strchr(word, '=')) {
        *value = '\0';
        change.value = value + 1;
    }
    char* section = strchr(word, '.');
    if (!section)
        return false;
    *section++ = '\0';
    if (char* option = strchr(section, '.')) {
        *option = '\0';
        change.option = option + 1;
    }
    change.section = section;
    return strcmp(word, package) == 0 && validName(section) && (!change.option || validName(change.option)) &&
           (change.value || change.kind == UCI_CHANGE_DELETE);
}

// Splits a line in place; false when it is no change to this package.
bool parseLine(std::span<char> line, const char* package, Change& change)
{
    if (memchr(line.data(), '\0', line.size()))
        return false;
    Words words(line);
    if (!words.nextCommand())
        return false;
    char* word = words.next();
    return word && !words.next() && !words.nextCommand() && parseChange(word, package, change);
}

// A copy, or null for null; `failed` is set when memory is short.
char* copyText(const char* text, bool& failed)
{
    if (!text)
        return nullptr;
    char* copy = strdup(text);
    if (!copy)
        failed = true;
    return copy;
}

} // namespace

uci_delta* newDelta(const Change& change)
{
    auto* delta = static_cast<uci_delta*>(calloc(1, sizeof(uci_delta)));
    if (!delta)
        return nullptr;
    bool failed = false;
    listInit(delta->e.list);
    delta->e.type = UCI_TYPE_DELTA;
    delta->e.name = copyText(change.option, failed);
    delta->change = change.kind;
    delta->section = copyText(change.section, failed);
    delta->value = copyText(change.value, failed);
    if (failed) {
        freeDelta(delta);
        return nullptr;
    }
    return delta;
}

void freeDelta(uci_delta* delta)
{
    listRemove(delta->e.list);
    free(delta->e.name);
    free(delta->section);
    free(delta->value);
    free(delta);
}

void freeDeltas(uci_list& deltas)
{
    uci_element *e = nullptr, *next = nullptr;
    uci_foreach_element_safe (&deltas, next, e) {
        freeDelta(recordOf<uci_delta>(e));
    }
}

void writeDelta(Text& out, const char* package, const uci_delta* delta)
{
    for (const Sign& sign : SIGNS) {
        if (delta->change == sign.kind)
            out << sign.sign;
    }
    out << package << '.' << delta->section;
    if (delta->e.name)
        out << '.' << delta->e.name;
    if (delta->value)
        (out << '=').quoted(delta->value);
    out << '\n';
}

void writeCommitMark(Text& out, uint64_t digest)
{
    char text[MARK_DIGITS + 1];
    snprintf(text, sizeof(text), "%016" PRIx64, digest);
    out << MARK << text << '\n';
}

void writeSaveMark(Text& out, size_t bytes)
{
    char text[24];
    snprintf(text, sizeof(text), "%zu", bytes);
    out << SAVE_MARK << text << '\n';
}

uint64_t digestOf(std::string_view text)
{
    uint64_t digest = 0xcbf29ce484222325;
    for (const char c : text)
        digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return digest;
}

ChangeFile::ChangeFile()
{
    listInit(deltas);
}

ChangeFile::~ChangeFile()
{
    freeDeltas(deltas);
}

ChangeLine changeLineAt(std::string_view text, size_t at)
{
    const bool begins = changeBegins(slice(text, at, text.size()));
    const size_t whole = begins ? lineEnd(text, at) : text.npos;
    const size_t feed = text.find('\n', at);
    const size_t end = feed != text.npos ? feed + 1 : text.size();
    return {whole != text.npos ? whole : end, whole != text.npos, begins && whole == text.npos, feed != text.npos};
}

int ChangeFile::read(std::span<char> text, const char* package, uint64_t digest)
{
    const std::string_view view(text.data(), text.size());
    size_t torn = view.npos; // where a line begins that does not end, unless a good one comes later
    size_t end = 0;
    for (size_t at = 0; at < view.size(); at = end) {
        const ChangeLine line = changeLineAt(view, at);
        end = line.end;
        if (savedBytes(slice(view, at, end)) > view.size() - end) {
            torn = torn == view.npos ? at : torn;
            break;
        }
        Change change{};
        if (isMark(slice(view, at, view.size()), digest)) {
            freeDeltas(deltas);
            committedPart = true;
        } else if (!line.whole) {
            // Its writer died in the middle, and even what is there may mean something else than the whole would have.
            if ((line.open || !line.fed) && torn == view.npos)
                torn = at;
        } else if (parseLine(text.subspan(at, end - at), package, change)) {
            torn = view.npos;
            uci_delta* delta = newDelta(change);
            if (!delta)
                return UCI_ERR_MEM;
            listInsertBefore(deltas, delta->e.list);
        }
    }
    wholeSize = torn == view.npos ? view.size() : torn;
    return UCI_OK;
}

int ChangeFile::apply(uci_package* p, unsigned& applied)
{
    const bool keep = (p->ctx->flags & UCI_FLAG_SAVED_DELTA) != 0;
    uci_element *e = nullptr, *next = nullptr;
    uci_foreach_element_safe (&deltas, next, e) {
        const uci_delta* delta = recordOf<uci_delta>(e);
        const int code = applyChange(p, {delta->change, delta->section, e->name, delta->value});
        if (code == UCI_ERR_MEM)
            return code;
        if (code == UCI_OK)
            ++applied;
        if (keep) {
            listRemove(e->list);
            listInsertBefore(p->saved_delta, e->list);
        }
    }
    return UCI_OK;
}

} // namespace ucilib
