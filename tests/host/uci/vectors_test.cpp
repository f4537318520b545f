// The golden data: files, edits and files, refused files, and tuples.
#include "sandbox.h"
#include "vector_file.h"

#include <gtest/gtest.h>

#include <json-c/json.h>

#include <map>

namespace {

struct Edit {
    std::string command;
    std::string argument;
    int status;
};

struct UciVector {
    std::string name, in, showBefore, delta, changes, out, showAfter;
    std::vector<Edit> edits;
};

void PrintTo(const UciVector& vector, std::ostream* out)
{
    *out << vector.name;
}

json_object* member(json_object* object, const char* key)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(object, key, &value))
        throw std::runtime_error(std::string("no ") + key);
    return value;
}

std::string text(json_object* string)
{
    return {json_object_get_string(string), static_cast<size_t>(json_object_get_string_len(string))};
}

std::string joinedLines(json_object* object, const char* key)
{
    json_object* lines = member(object, key);
    std::string all;
    for (size_t i = 0; i < json_object_array_length(lines); ++i)
        all += text(json_object_array_get_idx(lines, i));
    return all;
}

std::vector<UciVector> readVectors()
{
    const std::unique_ptr<json_object, int (*)(json_object*)> root(json_object_from_file(PTZD_VECTORS "/uci.json"),
                                                                   json_object_put);
    std::vector<UciVector> vectors;
    for (size_t i = 0; i < json_object_array_length(root.get()); ++i) {
        json_object* object = json_object_array_get_idx(root.get(), i);
        UciVector vector;
        vector.name = text(member(object, "name"));
        vector.in = joinedLines(object, "in");
        vector.showBefore = joinedLines(object, "show_before");
        vector.delta = joinedLines(object, "delta");
        vector.changes = joinedLines(object, "changes");
        vector.out = joinedLines(object, "out");
        vector.showAfter = joinedLines(object, "show_after");
        json_object* edits = member(object, "edits");
        for (size_t k = 0; k < json_object_array_length(edits); ++k) {
            json_object* edit = json_object_array_get_idx(edits, k);
            vector.edits.push_back({text(json_object_array_get_idx(edit, 0)), text(json_object_array_get_idx(edit, 1)),
                                    json_object_get_int(json_object_array_get_idx(edit, 2))});
        }
        vectors.push_back(std::move(vector));
    }
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
    Sandbox box(vector.in);
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    ASSERT_NE(p, nullptr);
    for (const Edit& step : vector.edits) {
        std::string tuple = step.argument;
        if (step.command == "add")
            tuple[tuple.find(' ')] = '=';
        EXPECT_EQ(edit(ctx, CALLS.at(step.command), tuple) != UCI_OK, step.status != 0) << step.argument;
    }
    ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);
    EXPECT_EQ(box.changes(), vector.delta);
    EXPECT_EQ(std::filesystem::exists(box.changeFile), !vector.delta.empty());

    const uci_package* before = p;
    ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    EXPECT_NE(p, before);
    EXPECT_EQ(box.fileText(), vector.out);
    EXPECT_EQ(box.changes(), "");
    EXPECT_EQ(uci_lookup_package(ctx.get(), "p"), p);
}

TEST_P(Vectors, ThroughTheCommand)
{
    const UciVector& vector = GetParam();
    Sandbox box(vector.in);
    EXPECT_EQ(box.show(), vector.showBefore);
    for (const Edit& step : vector.edits) {
        std::vector<std::string> arguments = {step.command, step.argument};
        if (step.command == "add") {
            const size_t blank = step.argument.find(' ');
            arguments = {"add", step.argument.substr(0, blank), step.argument.substr(blank + 1)};
        }
        EXPECT_EQ(box.run(arguments).status, step.status) << step.argument;
    }
    EXPECT_EQ(box.changes(), vector.delta);
    EXPECT_EQ(box.run({"changes", "p"}).out, vector.changes);
    EXPECT_EQ(box.run({"commit", "p"}).status, 0);
    EXPECT_EQ(box.fileText(), vector.out);
    EXPECT_EQ(box.show(), vector.showAfter);
}

INSTANTIATE_TEST_SUITE_P(Golden, Vectors, testing::ValuesIn(readVectors()),
                         [](const auto& vector) { return vector.param.name; });

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
    const std::string file = readVectors().front().in; // no_change
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
