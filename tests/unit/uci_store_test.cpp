// The configuration store's access layer on the real library, in a folder of the test's own.

#include "head.h"

#include <thread>

extern "C" {
#include <uci.h>
}

namespace {

constexpr int32_t UNTOUCHED = -77;

class UciStore : public Head {
protected:
    static void load(const std::string& text)
    {
        rig::store("ptzd", text);
        ASSERT_EQ(cfg_uci_init(), 0);
    }
};

TEST_F(UciStore, NumbersAreReadToTheirLastCharacter)
{
    load("config t 's'\n option a '12'\n option b '12x'\n option c '-5'\n option d '99999999999'\n option f '0.5'\n"
         " list l '1'\n");
    int32_t value = UNTOUCHED;
    EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "a", &value), 0);
    EXPECT_EQ(value, 12);
    for (const char* option : {"b", "f", "l", "missing"}) {
        EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", option, &value), CFG_UCI_FAILED) << option;
        EXPECT_EQ(value, 12) << option;
    }
    EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "c", &value), 0);
    EXPECT_EQ(value, -5);
    EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "d", &value), 0);
    EXPECT_EQ(value, 2147483647);
    int64_t wide = 0;
    EXPECT_EQ(cfg_uci_get_long_long_value(UCI_PTZD, "s", "d", &wide), 0);
    EXPECT_EQ(wide, 99999999999);
    float real = 0;
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "s", "f", &real), 0);
    EXPECT_EQ(real, 0.5F);
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "s", "b", &real), CFG_UCI_FAILED);
    EXPECT_TRUE(fakes.reports.empty()) << "misses are not errors";
}

TEST_F(UciStore, TextIsCutToTheBufferAndTerminated)
{
    load("config t 's'\n option a 'abcdef'\n list l 'x'\n");
    char text[7] = {};
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "a", text, 7), 0);
    EXPECT_STREQ(text, "abcdef");
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "a", text, 6), 0);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "l", text, 7), CFG_UCI_FAILED) << "a list has no text";
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "none", "a", text, 7), CFG_UCI_FAILED);
    EXPECT_STREQ(text, "abcde");
}

TEST_F(UciStore, RangesTakeTheFirstAndTheLastOfAList)
{
    load("config t 's'\n list three '10'\n list three '20'\n list three '30'\n list one '7'\n option plain '9'\n"
         " list real '0.5'\n list real '-1.5'\n");
    int32_t range[2] = {UNTOUCHED, UNTOUCHED};
    EXPECT_EQ(cfg_uci_get_range_int(UCI_PTZD, "s", "three", range), 0);
    EXPECT_EQ(range[0], 10);
    EXPECT_EQ(range[1], 30);
    for (const char* single : {"one", "plain"}) {
        range[1] = UNTOUCHED;
        EXPECT_EQ(cfg_uci_get_range_int(UCI_PTZD, "s", single, range), 0);
        EXPECT_EQ(range[1], UNTOUCHED) << single;
    }
    EXPECT_EQ(range[0], 9);
    EXPECT_EQ(cfg_uci_get_range_int(UCI_PTZD, "s", "missing", range), CFG_UCI_FAILED);
    EXPECT_EQ(cfg_uci_get_range_int(UCI_PTZD, "s", "three", nullptr), CFG_UCI_FAILED);
    float reals[2] = {};
    EXPECT_EQ(cfg_uci_get_range_float(UCI_PTZD, "s", "real", reals), 0);
    EXPECT_EQ(reals[0], 0.5F);
    EXPECT_EQ(reals[1], -1.5F);
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
    EXPECT_EQ(rig::stored("ptzd"), "config t 's'\n\toption a '1'\n");
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), 0);
    EXPECT_EQ(rig::stored("ptzd"),
              "\nconfig t 's'\n\toption a '-2147483648'\n\toption b '1.500000'\n\toption c '5000000000'\n"
              "\toption d 'it'\\''s = a.b'\n\nconfig kind 'new'\n\n");
}

TEST_F(UciStore, ListsGrowShrinkAndAreCleared)
{
    load("config t 's'\n option a '1'\n");
    for (const char* value : {"x", "y", "x"})
        EXPECT_EQ(cfg_uci_add_list(UCI_PTZD, "s", "l", value), 0);
    EXPECT_EQ(cfg_uci_add_list(UCI_PTZD, "s", "m", "x"), 0);
    EXPECT_EQ(cfg_uci_del_list(UCI_PTZD, "s", "m", "x"), 0);
    EXPECT_EQ(cfg_uci_clear_list(UCI_PTZD, "s", "l"), 0) << "removing the first x removes the last one too";
    EXPECT_EQ(cfg_uci_clear_list(UCI_PTZD, "s", "missing"), CFG_UCI_FAILED);
    for (const char* missing : {"none", "no section"})
        EXPECT_EQ(cfg_uci_delete(UCI_PTZD, missing, "t"), 0) << "deleting what is not there is no failure";
    EXPECT_EQ(cfg_uci_delete(UCI_PTZD, nullptr, "t"), CFG_UCI_FAILED);
    EXPECT_EQ(cfg_uci_delete(7, "s", "t"), CFG_UCI_FAILED);
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), 0);
    EXPECT_EQ(rig::stored("ptzd").find("list"), std::string::npos);
}

TEST_F(UciStore, AMissingPackageFailsTheStartAndIsReported)
{
    std::filesystem::remove(rigFolder("config") + "/tour");
    EXPECT_EQ(cfg_uci_init(), CFG_UCI_FAILED);
    EXPECT_EQ(fakes.reports, (std::vector<FakeReport>{{"cfg_uci_pkg_init", "error to load package tour\n"}}));
    EXPECT_EQ(cfg_uci_commit(UCI_TOUR), CFG_UCI_FAILED);
    EXPECT_EQ(fakes.reports.size(), 1u) << "a package that is not loaded is refused without a word";
    cfg_uci_deinit();
    int32_t value = 0;
    EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "a", &value), CFG_UCI_FAILED);
    EXPECT_EQ(cfg_uci_pkg_init("ptzd"), nullptr);
}

TEST_F(UciStore, AFailedCommitLeavesAPackageThatWorks)
{
    load("config t 's'\n option a '1'\n");
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 2), 0);
    rig::store("ptzd", "config t 's'\n option a 'unterminated\n");
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), CFG_UCI_FAILED);
    ASSERT_FALSE(fakes.reports.empty());
    EXPECT_EQ(fakes.reports[0].text, "error to comit uci package\n");
    int32_t value = UNTOUCHED;
    (void)cfg_uci_get_int_value(UCI_PTZD, "s", "a", &value); // whatever it says, it touches no freed package
    cfg_uci_pkg_reload(UCI_PTZD);
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 2), CFG_UCI_FAILED);
    rig::store("ptzd", "config t 's'\n option a '5'\n"); // somebody mends it: the next transaction loads it
    const UciTransaction transaction(UCI_PTZD);
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 6), 0);
    EXPECT_EQ(transaction.commit(), 0);
    EXPECT_EQ(rig::stored("ptzd"), "\nconfig t 's'\n\toption a '6'\n\n");
}

TEST_F(UciStore, AFailedCommitThatLosesThePackageLoadsItAgain)
{
    load("config t 's'\n option a '1'\n");
    EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", 2), 0);
    fakes.commitLosesPackage = true;
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), CFG_UCI_FAILED);
    RecursiveLockGuard hold(gContext.config.ConfigStoreLock);
    uci_package* const loaded =
        cfg_uci_get_section(UCI_PTZD, "s") ? uci_lookup_package(gContext.config.uciContext, "ptzd") : nullptr;
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(gContext.config.uciPackages[UCI_PTZD].handle, loaded);
}

TEST_F(UciStore, ATransactionKeepsAnotherThreadsReloadAway)
{
    load("config t 's'\n option a '1'\n");
    std::thread reloader([] {
        for (int i = 0; i < 200; ++i)
            cfg_uci_pkg_reload(UCI_PTZD);
    });
    for (int32_t i = 0; i < 50; ++i) {
        const UciTransaction transaction(UCI_PTZD);
        EXPECT_EQ(cfg_uci_set_int_value(UCI_PTZD, "s", "a", i), 0);
        std::this_thread::yield();
        EXPECT_EQ(transaction.commit(), 0);
        int32_t a = 0;
        EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", "a", &a), 0);
        EXPECT_EQ(a, i);
    }
    reloader.join();
}

} // namespace
