// The golden data: files, edits and files, refused files, and tuples.
#include "sandbox.h"
#include "vector_file.h"

#include <gtest/gtest.h>

#include <json-c/json.h>

#include <functional>

namespace {

// One of the array's vectors; a text is an array of its lines there.
class UciVector {
public:
    explicit UciVector(json_object* object) : object_(object)
    {
    }
    std::string lines(const char* key) const
    {
        std::string all;
        for (size_t i = 0; i < json_object_array_length(member(key)); ++i)
            all += text(json_object_array_get_idx(member(key), i));
        return all;
    }
    std::string name() const
    {
        return text(member("name"));
    }
    // Calls `make(command, argument, exit status)` for each edit.
    void edits(const std::function<void(const std::string&, const std::string&, int)>& make) const
    {
        for (size_t i = 0; i < json_object_array_length(member("edits")); ++i) {
            json_object* edit = json_object_array_get_idx(member("edits"), i);
            SCOPED_TRACE(text(edit));
            make(text(json_object_array_get_idx(edit, 0)), text(json_object_array_get_idx(edit, 1)),
                 json_object_get_int(json_object_array_get_idx(edit, 2)));
        }
    }

private:
    static std::string text(json_object* value)
    {
        return json_object_get_string(value);
    }
    json_object* member(const char* key) const
    {
        json_object* value = nullptr;
        if (!json_object_object_get_ex(object_, key, &value))
            throw std::runtime_error(std::string("no ") + key);
        return value;
    }
    json_object* object_;
};

std::vector<UciVector> readVectors()
{
    static json_object* const ROOT = json_object_from_file(PTZD_VECTORS "/uci.json");
    std::vector<UciVector> vectors;
    for (size_t i = 0; i < json_object_array_length(ROOT); ++i)
        vectors.emplace_back(json_object_array_get_idx(ROOT, i));
    return vectors;
}

TEST(Vectors, ThroughTheCommand)
{
    for (const UciVector& vector : readVectors()) {
        SCOPED_TRACE(vector.name());
        if (vector.name() == "rename_reorder")
            continue; // commands that ours does not have
        Sandbox box(vector.lines("in"));
        EXPECT_EQ(box.show(), vector.lines("show_before"));
        vector.edits([&](const std::string& command, const std::string& argument, int status) {
            const size_t blank = command == "add" ? argument.find(' ') : argument.npos;
            std::vector<std::string> arguments = {command, argument.substr(0, blank)};
            if (blank != argument.npos)
                arguments.push_back(argument.substr(blank + 1));
            EXPECT_EQ(box.run(arguments).status, status);
        });
        EXPECT_EQ(box.changes(), vector.lines("delta"));
        EXPECT_EQ(std::filesystem::exists(box.changeFile), !box.changes().empty());
        EXPECT_EQ(box.run({"changes", "p"}).out, vector.lines("changes"));
        EXPECT_EQ(box.run({"commit", "p"}).status, 0);
        EXPECT_EQ(box.fileText(), vector.lines("out"));
        EXPECT_EQ(box.show(), vector.lines("show_after"));
    }
}

TEST(RefusedFiles, GiveTheReasonAndThePlace)
{
    const std::vector<VectorRecord> records = readVectorFile("uci_errors.txt");
    EXPECT_EQ(records.size(), 17u);
    for (const VectorRecord& record : records) {
        SCOPED_TRACE(record.text("name"));
        Sandbox box(record.jsonText("file"));
        const Context ctx = box.context();
        uci_package* p = nullptr;
        EXPECT_EQ(uci_load(ctx.get(), "p", &p), std::stoi(record.text("error")));
        EXPECT_EQ(p, nullptr);
        char* message = nullptr;
        uci_get_errorstr(ctx.get(), &message, nullptr);
        EXPECT_EQ(message, record.text("message"));
        free(message);
        EXPECT_EQ(box.run({"show", "p"}).err, "uci: " + record.text("message") + "\n");
    }
}

void expectText(const VectorRecord& record, const char* key, const char* actual)
{
    if (record.text(key) == "null")
        EXPECT_EQ(actual, nullptr) << key;
    else
        EXPECT_STREQ(actual, record.jsonText(key).c_str());
}

TEST(Tuples, AreLookedUpAsRecorded)
{
    const std::string file = readVectors().front().lines("in"); // no_change
    size_t count = 0;
    for (const VectorRecord& record : readVectorFile("uci_tuples.txt")) {
        SCOPED_TRACE(record.text("tuple"));
        Sandbox box(file);
        const Context ctx = box.context();
        std::string tuple = record.jsonText("tuple");
        uci_ptr ptr;
        const int code = uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), record.text("extended") == "1");
        EXPECT_EQ(code, std::stoi(record.text("result")));
        EXPECT_EQ(ctx->err, code);
        ++count;
        if (code != UCI_OK || !record.has("target"))
            continue;
        EXPECT_EQ(int(ptr.target), std::stoi(record.text("target")));
        EXPECT_EQ(int(ptr.flags), std::stoi(record.text("flags")));
        const std::string found = {ptr.p ? 'p' : '-', ptr.s ? 's' : '-', ptr.o ? 'o' : '-'};
        EXPECT_EQ(found, record.text("found"));
        EXPECT_EQ(ptr.last, ptr.o ? &ptr.o->e : ptr.s ? &ptr.s->e : &ptr.p->e);
        expectText(record, "package", ptr.package);
        expectText(record, "section", ptr.section);
        expectText(record, "option", ptr.option);
        expectText(record, "value", ptr.value);
    }
    EXPECT_EQ(count, 31u);
}

} // namespace
