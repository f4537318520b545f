// The configuration store's access layer on the real library, in a folder of the test's own.

#include "config/uci_state.h"
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
        restart({{"ptzd", text}});
    }
};

TEST_F(UciStore, NumbersAreReadToTheirLastCharacter)
{
    load("config t 's'\n option a '12'\n option b '12x'\n option c '-5'\n option d '99999999999'\n option f '0.5'\n"
         " list l '1'\n");
    const struct {
        const char* option;
        int32_t result, value;
    } cases[] = {{"a", 0, 12},
                 {"b", CFG_UCI_FAILED, UNTOUCHED},
                 {"c", 0, -5},
                 {"d", 0, 2147483647},
                 {"f", CFG_UCI_FAILED, UNTOUCHED},
                 {"l", CFG_UCI_FAILED, UNTOUCHED},
                 {"missing", CFG_UCI_FAILED, UNTOUCHED}};
    for (const auto& one : cases) {
        int32_t value = UNTOUCHED;
        EXPECT_EQ(cfg_uci_get_int_value(UCI_PTZD, "s", one.option, &value), one.result) << one.option;
        EXPECT_EQ(value, one.value) << one.option;
    }
    int64_t wide = 0;
    EXPECT_EQ(cfg_uci_get_long_long_value(UCI_PTZD, "s", "d", &wide), 0);
    EXPECT_EQ(wide, 99999999999);
    float real = 0;
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "s", "f", &real), 0);
    EXPECT_EQ(cfg_uci_get_float_value(UCI_PTZD, "s", "b", &real), CFG_UCI_FAILED);
    EXPECT_EQ(real, 0.5F);
    EXPECT_TRUE(fakes.reports.empty()) << "misses are not errors";
}

TEST_F(UciStore, TextIsCutToTheBufferAndTerminatedAndRangesAreAListsEnds)
{
    load("config t 's'\n option a 'abcdef'\n list three '10'\n list three '20'\n list three '30'\n list one '7'\n"
         " option plain '9'\n list real '0.5'\n list real '-1.5'\n");
    char text[7] = {};
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "a", text, 7), 0);
    EXPECT_STREQ(text, "abcdef");
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "a", text, 6), 0);
    EXPECT_STREQ(text, "abcde");
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "s", "one", text, 7), CFG_UCI_FAILED) << "a list has no text";
    EXPECT_EQ(cfg_uci_get_string_value(UCI_PTZD, "none", "a", text, 7), CFG_UCI_FAILED);
    EXPECT_STREQ(text, "abcde");

    const struct {
        const char* option;
        int32_t result, first, last;
    } ranges[] = {{"three", 0, 10, 30},
                  {"one", 0, 7, UNTOUCHED},
                  {"plain", 0, 9, UNTOUCHED},
                  {"missing", CFG_UCI_FAILED, UNTOUCHED, UNTOUCHED}};
    for (const auto& one : ranges) {
        int32_t range[2] = {UNTOUCHED, UNTOUCHED};
        EXPECT_EQ(cfg_uci_get_range_int(UCI_PTZD, "s", one.option, range), one.result) << one.option;
        EXPECT_EQ(std::pair(range[0], range[1]), std::pair(one.first, one.last)) << one.option;
    }
    float reals[2] = {};
    EXPECT_EQ(cfg_uci_get_range_float(UCI_PTZD, "s", "real", reals), 0);
    EXPECT_EQ(std::pair(reals[0], reals[1]), std::pair(0.5F, -1.5F));
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
    EXPECT_EQ(cfg_uci_add_list(UCI_PTZD, "s", "m", "x"), 0);
    EXPECT_EQ(cfg_uci_del_list(UCI_PTZD, "s", "m", "x"), 0);
    EXPECT_EQ(cfg_uci_clear_list(UCI_PTZD, "s", "l"), 0) << "removing the first x removes the last one too";
    EXPECT_EQ(cfg_uci_clear_list(UCI_PTZD, "s", "missing"), CFG_UCI_FAILED);
    for (const char* missing : {"none", "no section"})
        EXPECT_EQ(cfg_uci_delete(UCI_PTZD, missing, "t"), 0) << "deleting what is not there is no failure";
    EXPECT_EQ(cfg_uci_delete(UCI_PTZD, nullptr, "t"), CFG_UCI_FAILED);
    EXPECT_EQ(cfg_uci_delete(7, "s", "t"), CFG_UCI_FAILED);
    EXPECT_EQ(rig::stored("ptzd"), "config t 's'\n\toption a '1'\n");
    EXPECT_EQ(cfg_uci_commit(UCI_PTZD), 0);
    EXPECT_EQ(rig::stored("ptzd"),
              "\nconfig t 's'\n\toption a '-2147483648'\n\toption b '1.500000'\n\toption c '5000000000'\n"
              "\toption d 'it'\\''s = a.b'\n\nconfig kind 'new'\n\n");
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
    EXPECT_EQ(fakes.reports.at(0).text, "error to comit uci package\n");
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
