// Names of presets with every awkward character.

#include "head.h"

#include <fstream>
#include <sstream>

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

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ",") + text;
    return all;
}

class PresetNames : public HeadInTheLab {
protected:
    std::string set(int id, const std::string& name)
    {
        return lab.call("setPreset", R"({"id":")" + std::to_string(id) + R"(","name":)" + quoted(name) + "}");
    }
    /// Of all presets, as the daemon tells them.
    std::string names()
    {
        const std::string reply = lab.call("getPresetAll");
        const size_t from = reply.find(R"("name":)");
        return reply.substr(from, reply.find(R"(,"read_only")") - from);
    }
    std::string show()
    {
        std::string text;
        EXPECT_EQ(lab.run({"uci", "export", "ptzd"}, text), 0) << "the file is unreadable";
        return text;
    }
};

const std::string ACCEPTED[] = {
    "'",
    "it's \"quoted\" ''twice''",
    "a.b.c=d.e='f'=\"g\"",
    " blanks  around and\tinside\t",
    "trailing backslash\\",
    "\\n \\' \\\" \\\\",
    "# none; $(reboot) `x` @a[0] %s",
    "config preset 'preset_1'",
    "option\rcarriage\r",
    "T\xc3\xbcr \xe9\x96\x80 \xf0\x9f\x9a\xaa", // two, three and four bytes a character
    "12345678901234567890123456789012",         // 32 bytes
    "123456789012345678901234567890\xc3\xbc",   // 32 bytes, the last two one character
    "\xff\xfe\xc3(\x80",                        // no UTF-8
    "0123456789012345678901234567890\xc3",      // 32 bytes, the last one half a character
    "\x7f",
    "0",
};

// For the third place, whose name is TWICE then.
constexpr const char* TWICE = R"("it's \"quoted\" ''twice''")";
const std::string NOT_STORED = std::string(R"({"name":)") + TWICE + R"(,"id":"3","error_code":-64301})";
const struct {
    const char* name;
    std::string reply;
} REFUSED[] = {
    {"a\nb", R"({"error_code":-64302})"},
    {"\x01", NOT_STORED}, // the store holds no control characters but tab and carriage return
    {"bell\a", NOT_STORED},
    {"\x1b[2J", NOT_STORED},
    {"123456789012345678901234567890123", R"({"error_code":-64308})"},       // 33 bytes
    {"1234567890123456789012345678901\xc3\xbc", R"({"error_code":-64308})"}, // the limit cuts a character
    {"12345678901234567890123456789\xf0\x9f\x9a\xaa", R"({"error_code":-64308})"},
};

TEST_F(PresetNames, AreStoredExactlyOrRefused)
{
    up();
    std::vector<std::string> shown; // of the eight places
    int id = 0;
    const auto restartShows = [&] {
        ASSERT_EQ(names(), R"("name":[)" + joined(shown) + "]");
        const std::string exported = show();
        std::string changes;
        EXPECT_EQ(lab.run({"uci", "changes"}, changes), 0);
        EXPECT_EQ(changes, "");
        ASSERT_EQ(lab.programs.killPtzd(SIGKILL).has_value(), true);
        ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
        EXPECT_EQ(names(), R"("name":[)" + joined(shown) + "]");
        EXPECT_EQ(show(), exported);
    };
    for (const std::string& name : ACCEPTED) {
        if (++id > 8)
            id = 1;
        const std::string place = std::to_string(id);
        EXPECT_EQ(set(id, name), R"({"name":)" + quoted(name) + R"(,"id":")" + place + R"(","error_code":0})");
        EXPECT_EQ(lab.settings.get("ptzd.preset_" + place + ".name"), name) << quoted(name);
        shown.resize(std::max<size_t>(shown.size(), static_cast<size_t>(id)));
        shown[static_cast<size_t>(id) - 1] = quoted(name);
        if (id == 8)
            restartShows();
    }
    shown[2] = TWICE;
    EXPECT_EQ(set(3, ACCEPTED[1]), std::string(R"({"name":)") + TWICE + R"(,"id":"3","error_code":0})");
    const std::string before = show();
    for (const auto& [name, reply] : REFUSED)
        EXPECT_EQ(set(3, name), reply) << quoted(name);
    EXPECT_TRUE(reported("savePresetList", "error to set option preset_3.name"));
    EXPECT_EQ(show(), before);
    restartShows();

    // An empty name is stored as none, which is read as the section's.
    EXPECT_EQ(set(3, ""), R"({"name":"","id":"3","error_code":0})");
    EXPECT_EQ(lab.settings.get("ptzd.preset_3.name"), std::nullopt);
    shown[2] = R"("")";
    EXPECT_EQ(names(), R"("name":[)" + joined(shown) + "]");
    ASSERT_TRUE(lab.programs.killPtzd(SIGKILL).has_value());
    ASSERT_TRUE(lab.programs.startPtzd()) << lab.error();
    shown[2] = R"("preset_3")";
    EXPECT_EQ(names(), R"("name":[)" + joined(shown) + "]");
}

// What stands in the file may have been written by hand: in other quotes, over two lines, without any quotes.
TEST_F(PresetNames, AreReadInEveryFormOfTheFile)
{
    const std::string rest = "\toption position_pan '0'\n\toption position_tilt '0'\n\toption position_zoom '0'\n"
                             "\toption read_only '0'\n\toption enabled '1'\n";
    const char* forms[] = {R"("it's")",        R"(two\ words)",   R"('a'"b"c)",
                           "'#1' # a comment", R"("say \"ho\"")", R"('back\slash')"};
    const char* meant[] = {"it's", "two words", "abc", "#1", "say \"ho\"", "back\\slash"};
    std::string text = "config ptzd 'config'\n\toption power_off_recover '1'\nconfig motor x_motor\nconfig motor "
                       "y_motor\n";
    std::vector<std::string> shown;
    for (size_t i = 0; i < std::size(forms); ++i) {
        text += "config preset preset_" + std::to_string(i + 1) + "\n\toption id " + std::to_string(i + 1) +
                "\n\toption name " + forms[i] + "\n" + rest;
        shown.push_back(quoted(meant[i]));
    }
    LabOptions options = fastHead();
    options.config["ptzd"] = text;
    up(options);
    EXPECT_EQ(names(), R"("name":[)" + joined(shown) + "]");
    EXPECT_EQ(set(7, "one more"), R"({"name":"one more","id":"7","error_code":0})");
    shown.push_back(R"("one more")");
    EXPECT_EQ(names(), R"("name":[)" + joined(shown) + "]") << "rewritten in the daemon's own form";
    for (size_t i = 0; i < std::size(meant); ++i)
        EXPECT_EQ(lab.settings.get("ptzd.preset_" + std::to_string(i + 1) + ".name"), meant[i]);
}

} // namespace
