#include "text_buffer.h"
#include "ubox.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr size_t MAX_TABS = 16;

// A container that has been opened and whose next child is `next`.
struct Level {
    blob_attr* next;
    size_t rest;
    bool array;
    bool empty;
};

// Open containers; on the heap, because a message may nest more deeply than a thread's stack could follow.
class LevelStack {
public:
    LevelStack() = default;
    ~LevelStack()
    {
        free(levels_);
    }
    LevelStack(const LevelStack&) = delete;
    LevelStack& operator=(const LevelStack&) = delete;

    bool push(const Level& level)
    {
        if (count_ == capacity_) {
            size_t capacity = std::max(2 * capacity_, size_t{16});
            auto* larger = static_cast<Level*>(realloc(levels_, capacity * sizeof(Level)));
            if (!larger)
                return false;
            levels_ = larger;
            capacity_ = capacity;
        }
        levels_[count_++] = level;
        return true;
    }
    void pop()
    {
        --count_;
    }
    Level& top()
    {
        return levels_[count_ - 1];
    }
    size_t size() const
    {
        return count_;
    }

private:
    Level* levels_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

class Formatter {
public:
    Formatter(blobmsg_json_format_t cb, void* priv, int indent) : cb_(cb), priv_(priv), indent_(indent)
    {
    }

    // The attribute and all below it. Prints nothing for a malformed one.
    char* format(blob_attr* attr, bool named)
    {
        if (blobmsg_check_attr(attr, false))
            add(attr, named);
        return finish();
    }

    // The children of the attribute, which is taken as a container whatever it is.
    char* formatChildren(blob_attr* attr)
    {
        bool extended = attr && blob_is_extended(attr);
        bool array = extended && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY;
        bool scalar = extended && !array && blobmsg_type(attr) != BLOBMSG_TYPE_TABLE;
        open(blobmsg_data(attr), scalar ? 0 : blobmsg_data_len(attr), array);
        return finish();
    }

private:
    char* finish();
    void add(blob_attr* attr, bool named);
    void addScalar(const blob_attr* attr);
    void addQuoted(std::string_view text);
    void addEscaped(char character);
    void open(void* data, size_t length, bool array);
    void close();
    void newLine();

    blobmsg_json_format_t cb_;
    void* priv_;
    int indent_; // below 0: compact
    TextBuffer text_;
    LevelStack levels_;
    bool failed_ = false;
};

char* Formatter::finish()
{
    while (levels_.size() > 0 && !failed_) {
        Level& level = levels_.top();
        blob_attr* attr = level.next;
        if (!attrFits(attr, level.rest)) {
            close();
            continue;
        }
        level.rest -= blob_pad_len(attr);
        level.next = blob_next(attr);
        if (!blobmsg_check_attr(attr, false))
            continue;
        if (!level.empty) {
            text_.add(',');
            newLine();
        }
        level.empty = false;
        add(attr, !level.array);
    }
    return failed_ ? nullptr : text_.release();
}

void Formatter::add(blob_attr* attr, bool named)
{
    if (named && blob_is_extended(attr) && *blobmsg_name(attr)) {
        addQuoted(blobmsg_name(attr));
        text_.add(indent_ < 0 ? ":" : ": ");
    }
    const char* instead = cb_ ? cb_(priv_, attr) : nullptr;
    int type = blobmsg_type(attr);
    if (instead)
        text_.add(std::string_view(instead));
    else if (type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE)
        open(blobmsg_data(attr), blobmsg_data_len(attr), type == BLOBMSG_TYPE_ARRAY);
    else
        addScalar(attr);
}

void Formatter::addScalar(const blob_attr* attr)
{
    char number[400]; // the largest double has 309 digits before its point
    int length = 0;

    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_STRING:
        addQuoted(blobmsg_get_string(attr));
        return;
    case BLOBMSG_TYPE_INT8:
        text_.add(blobmsg_get_bool(attr) ? "true" : "false");
        return;
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
        length = snprintf(number, sizeof(number), "%" PRId64, blobmsg_cast_s64(attr));
        break;
    case BLOBMSG_TYPE_DOUBLE:
        length = snprintf(number, sizeof(number), "%f", blobmsg_get_double(attr));
        break;
    default:
        text_.add("null");
        return;
    }
    text_.add(std::string_view(number, static_cast<size_t>(length)));
}

void Formatter::addQuoted(std::string_view text)
{
    text_.add('"');
    while (!text.empty()) {
        auto special = std::find_if(text.begin(), text.end(), [](char c) {
            return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\';
        });
        auto plain = static_cast<size_t>(special - text.begin());
        text_.add({text.data(), plain}); // not substr, which checks and may throw
        if (special != text.end())
            addEscaped(*special);
        text.remove_prefix(std::min(plain + 1, text.size()));
    }
    text_.add('"');
}

void Formatter::addEscaped(char character)
{
    static constexpr std::string_view SPECIAL = "\"\\\b\n\t\r";
    static constexpr std::string_view LETTER = "\"\\bntr";
    static constexpr char DIGITS[] = "0123456789abcdef";

    text_.add('\\');
    if (size_t at = SPECIAL.find(character); at != SPECIAL.npos) {
        text_.add(LETTER[at]);
        return;
    }
    text_.add("u00");
    text_.add(DIGITS[character >> 4]);
    text_.add(DIGITS[character & 15]);
}

void Formatter::open(void* data, size_t length, bool array)
{
    text_.add(array ? '[' : '{');
    if (!levels_.push({static_cast<blob_attr*>(data), length, array, true})) {
        failed_ = true;
        return;
    }
    newLine();
}

void Formatter::close()
{
    bool array = levels_.top().array;
    levels_.pop();
    newLine();
    text_.add(array ? ']' : '}');
}

void Formatter::newLine()
{
    if (indent_ < 0)
        return;
    text_.add('\n');
    text_.add(std::min(static_cast<size_t>(indent_) + levels_.size(), MAX_TABS), '\t');
}

} // namespace

char* blobmsg_format_json_with_cb(blob_attr* attr, bool list, blobmsg_json_format_t cb, void* priv, int indent)
{
    Formatter formatter(cb, priv, indent);
    return list ? formatter.formatChildren(attr) : formatter.format(attr, true);
}

char* blobmsg_format_json_value_with_cb(blob_attr* attr, blobmsg_json_format_t cb, void* priv, int indent)
{
    return Formatter(cb, priv, indent).format(attr, false);
}
