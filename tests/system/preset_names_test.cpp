// Names of presets with every awkward character.

#include "head.h"

namespace {

/// A JSON string of these bytes. What the replies escape is escaped in the same way, so it is also what they show.
std::string quoted(const std::string& text)
{
    std::string json = "\"";
    for (const char c : text) {
        char code[8];
        const size_t special = std::string("\"\\\n\t\r").find(c);
        if (special != std::string::npos)
            json += std::string("\\") + "\"\\ntr"[special];
        else if (static_cast<unsigned char>(c) < ' ')
            json.append(code, static_cast<size_t>(snprintf(code, sizeof(code), "\\u%04x", c)));
        else
            json += c;
    }
    return json + '"';
}

const std::vector<std::string> ACCEPTED = {
    "it's \"quoted\" ''twice''",
    "a.b.c=d.e='f'=\"g\"",
    " blanks  around and\tinside\t",
    "\\n \\' \\\" \\\\ trailing\\",
    "# none; $(reboot) `x` @a[0] %s\r",
    "T\xc3\xbcr \xe9\x96\x80 \xf0\x9f\x9a\xaa \x7f",  // two, three and four bytes a character
    "123456789012345678901234567890\xc3\xbc",         // 32 bytes, the last two one character
    "\xff\xfe\xc3(\x80 890123456789012345678901\xc3", // 32 bytes, no UTF-8, the last one half a character
};
const struct {
    const char* name;
    int code;
} REFUSED[] = {
    {"a\nb", -64302},
    {"\x01", -64301}, // the store holds no control characters but tab and carriage return
    {"\x1b[2J", -64301},
    {"123456789012345678901234567890123", -64308},       // 33 bytes
    {"1234567890123456789012345678901\xc3\xbc", -64308}, // the limit cuts a character
};

TEST_F(HeadInTheLab, TakesNamesOfPresetsExactlyOrRefusesThem)
{
    up();
    const auto set = [&](size_t id, const std::string& name) {
        return lab.call("setPreset", R"({"id":")" + std::to_string(id) + R"(","name":)" + quoted(name) + "}");
    };
    const auto stored = [&] { // as the daemon shows them, and as they are in the file
        std::string file;
        EXPECT_EQ(lab.run({"uci", "show", "ptzd"}, file), 0) << "unreadable";
        return lab.call("getPresetAll") + file;
    };
    const auto restart = [&] {
        ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
        ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    };
    std::string names;
    for (size_t id = 1; id <= ACCEPTED.size(); ++id) {
        const std::string& name = ACCEPTED[id - 1];
        const std::string place = std::to_string(id);
        EXPECT_EQ(set(id, name), R"({"name":)" + quoted(name) + R"(,"id":")" + place + R"(","error_code":0})");
        EXPECT_EQ(lab.settings.get("ptzd.preset_" + place + ".name"), name) << quoted(name);
        names += (names.empty() ? "" : ",") + quoted(name);
    }
    const std::string before = stored();
    EXPECT_NE(before.find(R"("name":[)" + names + "]"), std::string::npos) << before;
    for (const auto& [name, code] : REFUSED)
        EXPECT_TRUE(set(3, name).ends_with(R"("error_code":)" + std::to_string(code) + "}")) << quoted(name);
    EXPECT_TRUE(reported("savePresetList", "error to set option preset_3.name"));
    EXPECT_EQ(stored(), before);
    restart();
    EXPECT_EQ(stored(), before);

    // An empty name is stored as none, which is read as the section's.
    EXPECT_EQ(set(1, ""), R"({"name":"","id":"1","error_code":0})");
    EXPECT_EQ(lab.settings.get("ptzd.preset_1.name"), std::nullopt);
    restart();
    EXPECT_NE(lab.call("getPresetAll").find(R"("name":["preset_1",)"), std::string::npos);
}

} // namespace
