/// What the library's sources share: guards, the tree, words and texts, change records.
///
/// Nothing here locks or is shared between threads, except through the files that file.h locks. Functions that return
/// int return a UCI_ code and leave the context's `err` to the public call they serve; a null pointer from a function
/// that makes something means that memory is short.
#pragma once

#include "elements.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

namespace ucilib {

struct FreeDeleter {
    void operator()(void* memory) const
    {
        free(memory);
    }
};
using OwnedText = std::unique_ptr<char, FreeDeleter>;

/// text[from, to), unchecked: the checked substr wants the C++ runtime library.
inline std::string_view slice(std::string_view text, size_t from, size_t to)
{
    return {text.data() + from, to - from};
}

/// Whether a text begins so; string_view's own starts_with wants the runtime library too, in a build that is not
/// optimised.
inline bool beginsWith(std::string_view text, std::string_view start)
{
    return text.size() >= start.size() && memcmp(text.data(), start.data(), start.size()) == 0;
}

/// Leaves a public call's result in the context and returns it.
inline int result(uci_context* ctx, int code)
{
    ctx->err = code;
    return code;
}

// ---- lists and elements (tree.cpp) ----

void listInit(uci_list& list);

/// Puts an unlinked node in front of another one; in front of the head is the end of the list.
void listInsertBefore(uci_list& place, uci_list& node);
void listRemove(uci_list& node);

[[nodiscard]] uci_package* newPackage(uci_context* ctx, const char* name, const char* path);

/// Frees a package that is in no list, with all below it. Null is allowed.
void freePackage(uci_package* p);

struct PackageDeleter {
    void operator()(uci_package* p) const
    {
        freePackage(p);
    }
};
using OwnedPackage = std::unique_ptr<uci_package, PackageDeleter>;

/// A list's value, in no list.
[[nodiscard]] uci_element* newItem(const char* text);

/// Makes a section at the end of the package. Without a name (null) it is anonymous and gets a generated one.
[[nodiscard]] uci_section* newSection(uci_package* p, const char* type, const char* name);

/// These take what they free out of its list first.
void freeSection(uci_section* s);
void freeOption(uci_option* o);
void freeItem(uci_element* item);

/// Changes a section's type; false when memory is short.
[[nodiscard]] bool setType(uci_section* s, const char* type);

/// Makes the option a plain one with this value: in its place, or at the end of the section.
[[nodiscard]] uci_option* putOption(uci_section* s, const char* name, const char* value);

/// Appends to the list of that name, which is made if there is none; a plain option becomes its first value.
[[nodiscard]] uci_option* putListItem(uci_section* s, const char* name, const char* value);

/// The element of that name, or null.
uci_element* findElement(uci_list& list, const char* name);
uci_section* findSection(uci_package* p, const char* name);
uci_option* findOption(uci_section* s, const char* name);

// ---- words (words.cpp) ----

/// Section and option names: letters, digits, `_`.
bool validName(const char* text);

/// Section types: printable ASCII without blank.
bool validType(const char* text);

/// The name on a file's package line: a dash may be in it, too.
bool validPackageLine(const char* text);

/// Package names: as types, without what would be ambiguous in a path or in a change file.
bool validPackageName(const char* text);

/// Splits a text into commands and words in place: quotes and escapes are taken off, and each word is ended by a NUL
/// that overwrites what stood behind it.
class Words {
public:
    /// @param text  writable one byte past its end too
    explicit Words(std::span<char> text);

    /// Goes to the next command that has a word; false at the end of the text.
    bool nextCommand();

    /// The next word of the command; null at its end, and when a quote is not closed (see `fault`).
    char* next();

    const char* fault = nullptr; ///< why the text cannot be split further, or null
    int wordLine = 1;            ///< where the last word began: line from 1
    int wordByte = 0;            ///< and byte in it from 0
    bool escaped = false;        ///< whether the last word holds a backslash outside quotes
    int line = 1;                ///< the reading position: behind the blank or line feed that ended the last word

    [[nodiscard]] int byte() const
    {
        return static_cast<int>(at_ - lineStart_);
    }

private:
    char* at_;
    char* end_;
    char* lineStart_;
    bool lineEnded_ = false;  // the byte read last was a line feed; its line counts until another byte is read
    bool commandOpen_ = true; // more words may follow in this command

    [[nodiscard]] bool more() const
    {
        return at_ < end_;
    }
    void settle();
    char take();
    void skipBlanks();
    void skipToLineEnd();
    void readQuoted(char quote, char*& out);
    void endWord();
};

/// The offset behind the line feed that ends the line of words at `from` (a quoted one does not), or npos.
size_t lineEnd(std::string_view text, size_t from);

// ---- growing texts (text.cpp) ----

/// A text that grows; when memory runs short it is marked as failed and stays as it was.
class Text {
public:
    Text() = default;
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
    ~Text();

    Text& operator<<(std::string_view more);
    Text& operator<<(char c);

    /// In single quotes, a single quote within as '\''.
    Text& quoted(std::string_view more);

    [[nodiscard]] bool failed() const
    {
        return failed_;
    }
    [[nodiscard]] std::string_view view() const
    {
        return {data_, size_};
    }
    /// The bytes, with a NUL behind them; a null span only when nothing was ever appended.
    [[nodiscard]] std::span<char> bytes()
    {
        return {data_, size_};
    }
    /// Makes room for `count` more bytes to be filled in place, then counted by `grow`; null when memory is short.
    char* room(size_t count);
    void grow(size_t count);

private:
    char* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
    bool failed_ = false;
};

// ---- files of packages (parse.cpp, package.cpp) ----

/// Reads a configuration file's text into an empty package; the text is spoilt. UCI_ERR_PARSE leaves reason and place
/// in the context.
[[nodiscard]] int parsePackage(uci_context* ctx, uci_package* p, std::span<char> text);

/// Appends a package as its file holds it.
void writePackage(Text& out, const uci_package* p);

/// Makes a package from the text of its file and from the default save directory's change file, unless that is the
/// context's own, and stores it, in no list, in `fresh`.
/// @param digest  of the text, see digestOf
[[nodiscard]] int buildPackage(uci_context* ctx, const char* name, const char* path, std::span<char> text,
                               uint64_t digest, OwnedPackage& fresh, unsigned& applied);

/// SAVEDIR/PACKAGE; null when memory is short.
[[nodiscard]] OwnedText joinPath(const char* dir, const char* name);

// ---- changes (change.cpp, delta.cpp) ----

/// One change, its texts borrowed; option and value null where it has none.
struct Change {
    uci_change kind;
    const char* section;
    const char* option;
    const char* value;
};

/// Does a change to a package in memory, without recording it. Codes as the public calls say; whatever is returned but
/// UCI_OK, the package is as it was.
[[nodiscard]] int applyChange(uci_package* p, const Change& change);

[[nodiscard]] uci_delta* newDelta(const Change& change);
void freeDelta(uci_delta* delta);
void freeDeltas(uci_list& deltas);

/// Appends the change file's line of a record.
void writeDelta(Text& out, const char* package, const uci_delta* delta);

/// A line of a change file.
struct ChangeLine {
    size_t end; ///< where the next one begins
    bool whole; ///< it begins like a change and goes up to a line feed outside quotes
    bool open;  ///< it begins like a change, and its quote is not closed down to the end of the file
    bool fed;   ///< a line feed ends it, quoted or not
};
ChangeLine changeLineAt(std::string_view text, size_t at);

/// What a change file says.
struct ChangeFile {
    uci_list deltas;            ///< changes that are not in the configuration file yet
    size_t wholeSize = 0;       ///< bytes up to a torn line at its end
    bool committedPart = false; ///< it held changes that are in the configuration file already

    ChangeFile();
    ChangeFile(const ChangeFile&) = delete;
    ChangeFile& operator=(const ChangeFile&) = delete;
    ~ChangeFile();

    /// Reads the file's text, which is spoilt. Lines that are no change to this package are skipped.
    /// @param digest  of the configuration file's text
    [[nodiscard]] int read(std::span<char> text, const char* package, uint64_t digest);

    /// Applies the changes in order; those that do not apply are skipped. Counts the others in `applied`.
    [[nodiscard]] int apply(uci_package* p, unsigned& applied);
};

/// Appends the line that says: once the configuration file's text has this digest, all changes above are in it.
void writeCommitMark(Text& out, uint64_t digest);
/// The line before `bytes` of changes that are saved at once; see delta.cpp.
void writeSaveMark(Text& out, size_t bytes);

/// Digest of a configuration file's text (64-bit FNV-1a).
uint64_t digestOf(std::string_view text);

} // namespace ucilib
