// The golden data: files, edits and files, refused files, and tuples.
#include "sandbox.h"

namespace {

using Json = json_object*;

std::string textOf(Json value)
{
    return json_object_get_string(value);
}

// The texts of an array, put together.
std::string linesOf(Json vector, const char* key)
{
    const Json lines = json_object_object_get(vector, key);
    std::string all;
    for (size_t i = 0; i < json_object_array_length(lines); ++i)
        all += textOf(json_object_array_get_idx(lines, i));
    return all;
}

const Json VECTORS = json_object_from_file(PTZD_VECTORS "/uci.json");

TEST(Vectors, ThroughTheCommand)
{
    ASSERT_EQ(json_object_array_length(VECTORS), 34u);
    for (size_t v = 0; v < json_object_array_length(VECTORS); ++v) {
        const Json vector = json_object_array_get_idx(VECTORS, v);
        const std::string name = textOf(json_object_object_get(vector, "name"));
        SCOPED_TRACE(name);
        if (name == "rename_reorder")
            continue; // commands that ours does not have
        const Sandbox box(linesOf(vector, "in"));
        EXPECT_EQ(box.show(), linesOf(vector, "show_before"));
        const Json edits = json_object_object_get(vector, "edits");
        for (size_t i = 0; i < json_object_array_length(edits); ++i) {
            const Json edit = json_object_array_get_idx(edits, i);
            const std::string command = textOf(json_object_array_get_idx(edit, 0));
            const std::string argument = textOf(json_object_array_get_idx(edit, 1));
            Strings arguments = {command, argument};
            if (const size_t blank = argument.find(' '); command == "add" && blank != argument.npos)
                arguments = {command, argument.substr(0, blank), argument.substr(blank + 1)};
            EXPECT_EQ(box.run(arguments).status, json_object_get_int(json_object_array_get_idx(edit, 2))) << argument;
        }
        EXPECT_EQ(readFile(box.changeFile), linesOf(vector, "delta"));
        EXPECT_EQ(box.run({"changes", "p"}).out, linesOf(vector, "changes"));
        EXPECT_EQ(box.run({"commit", "p"}).status, 0);
        EXPECT_EQ(readFile(box.file), linesOf(vector, "out"));
        EXPECT_EQ(box.show(), linesOf(vector, "show_after"));
    }
}

TEST(RefusedFiles, GiveTheReasonAndThePlace)
{
    const std::vector<VectorRecord> records = readVectorFile("uci_errors.txt");
    EXPECT_EQ(records.size(), 17u);
    for (const VectorRecord& record : records) {
        SCOPED_TRACE(record.at("name"));
        Sandbox box(jsonText(record.at("file")));
        const UciContext ctx = box.context();
        uci_package* p = nullptr;
        EXPECT_EQ(uci_load(ctx.get(), "p", &p), std::stoi(record.at("error")));
        EXPECT_EQ(p, nullptr);
        char* message = nullptr;
        uci_get_errorstr(ctx.get(), &message, nullptr);
        EXPECT_EQ(message, record.at("message"));
        free(message);
        EXPECT_EQ(box.run({"show", "p"}).err, UCI_PROGRAM ": " + record.at("message") + "\n");
    }
}

TEST(Tuples, AreLookedUpAsRecorded)
{
    const std::string file = linesOf(json_object_array_get_idx(VECTORS, 0), "in"); // no_change
    size_t count = 0;
    for (const VectorRecord& record : readVectorFile("uci_tuples.txt")) {
        SCOPED_TRACE(record.at("tuple"));
        Sandbox box(file);
        const UciContext ctx = box.context();
        std::string tuple = jsonText(record.at("tuple"));
        uci_ptr ptr;
        const int code = uci_lookup_ptr(ctx.get(), &ptr, tuple.data(), record.at("extended") == "1");
        EXPECT_EQ(code, std::stoi(record.at("result")));
        EXPECT_EQ(ctx->err, code);
        ++count;
        if (code != UCI_OK || !record.contains("target"))
            continue;
        EXPECT_EQ(int(ptr.target), std::stoi(record.at("target")));
        EXPECT_EQ(int(ptr.flags), std::stoi(record.at("flags")));
        const std::string found = {ptr.p ? 'p' : '-', ptr.s ? 's' : '-', ptr.o ? 'o' : '-'};
        EXPECT_EQ(found, record.at("found"));
        EXPECT_EQ(ptr.last, ptr.o ? &ptr.o->e : ptr.s ? &ptr.s->e : &ptr.p->e);
        const std::pair<const char*, const char*> texts[] = {
            {"package", ptr.package}, {"section", ptr.section}, {"option", ptr.option}, {"value", ptr.value}};
        for (const auto& [key, actual] : texts)
            EXPECT_EQ(actual ? actual : "null", record.at(key) == "null" ? "null" : jsonText(record.at(key))) << key;
    }
    EXPECT_EQ(count, 31u);
}

} // namespace
