// The value parsers at their edges, and the configuration store's access layer on the real library.

#include "config/uci_state.h"
#include "config/value_parsers.h"
#include "head.h"

extern "C" {
#include <uci.h>
}

namespace {

constexpr int32_t UNTOUCHED = -77;

class UciStore : public Head {
protected:
    static void load(const std::string& text)
    {
        restart({{"ptzd", text}});
    }
};

TEST_F(UciStore, NumbersAreTakenWholeOrNotAtAll)
{
    const struct {
        std::string value;
        int32_t result, integer;
        float real = UNTOUCHED;
    } cases[] = {
        {"12", 0, 12, 12.0F},
        {"-5", 0, -5, -5.0F},
        {" 7", 0, 7, 7.0F},
        {"+3", 0, 3, 3.0F},
        {"99999999999", 0, 2147483647, 99999999999.0F},
        {"12x", CFG_UCI_FAILED, UNTOUCHED},
        {"42 ", CFG_UCI_FAILED, UNTOUCHED},
        {"0,5", CFG_UCI_FAILED, UNTOUCHED},
        {"1e3", CFG_UCI_FAILED, UNTOUCHED, 1000.0F},
        {"0.25", CFG_UCI_FAILED, UNTOUCHED, 0.25F},
    };
    for (const auto& one : cases) {
        load("config t 's'\n option a '" + one.value + "'\n list l '1'\n");
        int32_t integer = UNTOUCHED;
        EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "a", &integer), one.result) << one.value;
        EXPECT_EQ(integer, one.integer) << one.value;
        float real = UNTOUCHED;
        EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "s", "a", &real) == 0, one.real != UNTOUCHED) << one.value;
        EXPECT_EQ(real, one.real) << one.value;
        for (const char* option : {"l", "missing"})
            EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", option, &integer), CFG_UCI_FAILED) << option;
    }
    EXPECT_TRUE(fakes.reports.empty()) << "misses are not errors";
}

TEST_F(UciStore, TextIsCutToTheBufferAndTerminated)
{
    load("config t 's'\n option a 'abcdef'\n list l '7'\n");
    char text[7] = {};
    for (const auto& [room, expected] : {std::pair<size_t, const char*>{7, "abcdef"}, {6, "abcde"}}) {
        EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "a", text, room), 0);
        EXPECT_STREQ(text, expected);
    }
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "l", text, 7), CFG_UCI_FAILED) << "a list has no text";
}

TEST_F(UciStore, ChangesReachTheFileWithTheCommitOnly)
{
    load("config t 's'\n\toption a '1'\n");
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", -2147483647 - 1), 0);
    EXPECT_EQ(cfg_uci_set_float_value(UCI_PTZD, "s", "b", 1.5F), 0);
    EXPECT_EQ(cfg_uci_set_long_long_value(UCI_PTZD, "s", "c", 5000000000), 0);
    EXPECT_EQ(cfg_uci_set_string_value(UCI_PTZD, "s", "d", "it's = a.b"), 0);
    EXPECT_EQ(cfg_uci_set_section(UCI_PTZD, "new", "kind"), 0);
    EXPECT_EQ(cfg_uci_set_string_value(UCI_PTZD, "none", "a", "1"), CFG_UCI_FAILED) << "sections are not made up";
    for (const char* value : {"x", "y", "x"})
        EXPECT_EQ(cfg_uci_add_list(UCI_PTZD, "s", "l", value), 0);
    EXPECT_EQ(cfg_uci_clear_list(UCI_PTZD, "s", "l"), 0) << "removing the first x removes the last one too";
    for (const char* missing : {"none", "no section"})
        EXPECT_EQ(cfg_uci_delete(UCI_PTZD, missing, "t"), 0) << "deleting what is not there is no failure";
    EXPECT_EQ(cfg_uci_delete(UCI_PTZD, nullptr, "t"), CFG_UCI_FAILED);
    EXPECT_EQ(rig::stored("ptzd"), "config t 's'\n\toption a '1'\n");
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), 0);
    EXPECT_EQ(rig::stored("ptzd"),
              "\nconfig t 's'\n\toption a '-2147483648'\n\toption b '1.500000'\n\toption c '5000000000'\n"
              "\toption d 'it'\\''s = a.b'\n\nconfig kind 'new'\n\n");
}

TEST_F(UciStore, AFailedCommitLeavesAPackageThatWorks)
{
    load("config t 's'\n option a '1'\n");
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 2), 0);
    rig::store("ptzd", "config t 's'\n option a 'unterminated\n");
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), CFG_UCI_FAILED);
    EXPECT_EQ(fakes.reports.at(0).second, "error to comit uci package\n");
    cfg_uci_pkg_reload(UCI_PTZD);
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 2), CFG_UCI_FAILED);
    rig::store("ptzd", "config t 's'\n option a '5'\n"); // somebody mends it: the next transaction loads it
    {
        const UciTransaction transaction(UCI_PTZD);
        EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 6), 0);
        EXPECT_EQ(transaction.commit(), 0);
        EXPECT_EQ(rig::stored("ptzd"), "\nconfig t 's'\n\toption a '6'\n\n");
    }
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 7), 0);
    fakes.commitLosesPackage = true;
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), CFG_UCI_FAILED);
    const RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    uci_package* const loaded = uci_lookup_package(gContext.config.uciContext, "ptzd");
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(gContext.config.uciPackages[UCI_PTZD].handle, loaded);
}

TEST(ValueParsers, ListsKeepDigitsAndCommasOnly)
{
    const std::pair<const char*, std::vector<int32_t>> cases[] = {{"[\"3\",,\"-1\", 1 2]", {3, 1, 12}},
                                                                  {"1,2,3,4", {1, 2, 3}},
                                                                  {"99999999999999999999", {2147483647}},
                                                                  {"[]", {}}};
    for (const auto& [text, expected] : cases) {
        std::vector<int32_t> values(3); // exact, so that a write past it is found
        const int32_t count = string_to_int_list(text, values.data(), 3);
        values.resize(static_cast<size_t>(count));
        EXPECT_EQ(values, expected) << text;
    }
}

TEST(ValueParsers, UrlsAreDecodedUpToTheirLength)
{
    const std::tuple<std::string, size_t, std::string> cases[] = {
        {"%4a", 3, "J"}, {"%41", 2, "%4"}, {"%41", 1, "%"}, {"%zz%41", 6, "%zzA"}, {"%%41", 4, "%A"}};
    for (auto [text, length, decoded] : cases) {
        text.resize(url_decode(text.data(), length));
        EXPECT_EQ(text, decoded);
    }
}

} // namespace
