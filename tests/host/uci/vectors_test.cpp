// The golden data: files, edits and files, refused files, and tuples.
#include "sandbox.h"
#include "vector_file.h"

#include <gtest/gtest.h>

#include <json-c/json.h>

#include <functional>
#include <map>

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
    // Calls `make(command, argument, whether it fails)` for each edit.
    void edits(const std::function<void(const std::string&, const std::string&, bool)>& make) const
    {
        for (size_t i = 0; i < json_object_array_length(member("edits")); ++i) {
            json_object* edit = json_object_array_get_idx(member("edits"), i);
            SCOPED_TRACE(text(edit));
            make(text(json_object_array_get_idx(edit, 0)), text(json_object_array_get_idx(edit, 1)),
                 json_object_get_int(json_object_array_get_idx(edit, 2)) != 0);
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

void PrintTo(const UciVector& vector, std::ostream* out)
{
    *out << vector.name();
}

std::vector<UciVector> readVectors()
{
    static json_object* const ROOT = json_object_from_file(PTZD_VECTORS "/uci.json");
    std::vector<UciVector> vectors;
    for (size_t i = 0; i < json_object_array_length(ROOT); ++i)
        vectors.emplace_back(json_object_array_get_idx(ROOT, i));
    return vectors;
}

int reorderSection(uci_context* ctx, uci_ptr* ptr)
{
    return uci_reorder_section(ctx, ptr->s, std::stoi(ptr->value));
}

int addSection(uci_context* ctx, uci_ptr* ptr)
{
    uci_section* s = nullptr;
    return uci_add_section(ctx, ptr->p, ptr->value, &s);
}

const std::map<std::string, ChangeCall*> CALLS = {
    {"set", uci_set},       {"delete", uci_delete},      {"add_list", uci_add_list}, {"del_list", uci_del_list},
    {"rename", uci_rename}, {"reorder", reorderSection}, {"add", addSection}};

class Vectors : public testing::TestWithParam<UciVector> {};

TEST_P(Vectors, ThroughTheLibrary)
{
    const UciVector& vector = GetParam();
    Sandbox box(vector.lines("in"));
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    ASSERT_NE(p, nullptr);
    vector.edits([&](const std::string& command, std::string tuple, bool fails) {
        if (command == "add")
            tuple[tuple.find(' ')] = '=';
        EXPECT_EQ(edit(ctx, CALLS.at(command), tuple) != UCI_OK, fails);
    });
    ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);
    EXPECT_EQ(box.changes(), vector.lines("delta"));
    EXPECT_EQ(std::filesystem::exists(box.changeFile), !box.changes().empty());

    const uci_package* before = p;
    ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    EXPECT_NE(p, before);
    EXPECT_EQ(box.fileText(), vector.lines("out"));
    EXPECT_EQ(box.changes(), "");
    EXPECT_EQ(uci_lookup_package(ctx.get(), "p"), p);
}

TEST_P(Vectors, ThroughTheCommand)
{
    const UciVector& vector = GetParam();
    Sandbox box(vector.lines("in"));
    EXPECT_EQ(box.show(), vector.lines("show_before"));
    vector.edits([&](const std::string& command, const std::string& argument, bool fails) {
        const size_t blank = command == "add" ? argument.find(' ') : argument.npos;
        std::vector<std::string> arguments = {command, argument.substr(0, blank)};
        if (blank != argument.npos)
            arguments.push_back(argument.substr(blank + 1));
        EXPECT_EQ(box.run(arguments).status, fails ? 1 : 0);
    });
    EXPECT_EQ(box.changes(), vector.lines("delta"));
    EXPECT_EQ(box.run({"changes", "p"}).out, vector.lines("changes"));
    EXPECT_EQ(box.run({"commit", "p"}).status, 0);
    EXPECT_EQ(box.fileText(), vector.lines("out"));
    EXPECT_EQ(box.show(), vector.lines("show_after"));
}

INSTANTIATE_TEST_SUITE_P(Golden, Vectors, testing::ValuesIn(readVectors()),
                         [](const auto& vector) { return vector.param.name(); });

TEST(RefusedFiles, GiveTheReasonAndThePlace)
{
    size_t count = 0;
    for (const VectorRecord& record : readVectorFile("uci_errors.txt")) {
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
        ++count;
    }
    EXPECT_EQ(count, 17u);
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
