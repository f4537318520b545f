// Processes that die in a commit, and several that commit the same package.
#include "fault_calls.h"
#include "sandbox.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// Runs a function in a child process; the function's result is its exit status.
template <typename Function>
pid_t inChild(Function function)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(function());
    return child;
}

int exitStatus(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Crash, InAnyCallOfACommitLeavesTheOldOrTheNewFile)
{
    const std::string before = "config t 's'\n\tlist l 'x'\n";
    const std::string with = "\nconfig t 's'\n\tlist l 'x'\n\tlist l 'y'\n\nconfig rule\n\n";
    bool died = true;
    for (int nth = 1; died; ++nth) {
        SCOPED_TRACE(nth);
        Sandbox box(before);
        const int status = exitStatus(inChild([&] {
            const Context ctx = box.context();
            uci_package* p = load(ctx);
            uci_section* s = nullptr;
            edit(ctx, uci_add_list, "p.s.l=y");
            uci_add_section(ctx.get(), p, "rule", &s);
            plan(Fault::Die, nth);
            return uci_commit(ctx.get(), &p, false);
        }));
        died = status == 9;
        EXPECT_TRUE(died || status == UCI_OK);
        EXPECT_TRUE(box.fileText() == before || box.fileText() == with) << box.fileText();

        // Whoever comes next sees the change whole or, if it was not saved, not at all; and once.
        const std::string pending = box.changes();
        const std::string seen = box.show();
        EXPECT_EQ(box.run({"commit"}).status, 0);
        EXPECT_EQ(box.show(), seen);
        if (seen.find("'y'") == seen.npos && seen.find("rule") == seen.npos)
            EXPECT_EQ(box.fileText(), before);
        else if (seen.find("rule") != seen.npos)
            EXPECT_EQ(box.fileText(), with);
        else
            EXPECT_EQ(pending.rfind("|p.s.l='y'\n", 0), 0u) << "torn behind a whole line";
        // A commit that writes takes away what the dead one left.
        EXPECT_EQ(box.run({"set", "p.s.z=1"}).status + box.run({"commit"}).status, 0);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(box.configDir), {}), 1);
        EXPECT_EQ(box.changes(), "");
    }
}

// Adds a number to a list and sets a counter to it, commits, reports the number, and so on.
int commitForEver(const Sandbox& box, int report)
{
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    if (!p)
        return 1;
    for (int number = std::stoi(values(ctx, "p.s.count")[0]) + 1;; ++number) {
        if (edit(ctx, uci_set, "p.s.count=" + std::to_string(number)) ||
            edit(ctx, uci_add_list, "p.s.l=" + std::to_string(number)) ||
            edit(ctx, uci_del_list, "p.s.l=" + std::to_string(number - 5)) || uci_commit(ctx.get(), &p, false))
            return 2;
        if (write(report, &number, sizeof(number)) != sizeof(number))
            return 3;
    }
}

TEST(Crash, ByKillingAtRandomLosesNoCommit)
{
    Sandbox box("config t 's'\n\toption count '0'\n");
    std::mt19937 random; // the scheduler adds chance enough
    std::uniform_int_distribution<useconds_t> pause(0, 6000);
    int committed = 0;
    for (int kill9 = 0; kill9 < 300; ++kill9) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        const pid_t child = inChild([&] { return commitForEver(box, report[1]); });
        close(report[1]);
        usleep(pause(random));
        kill(child, SIGKILL);
        ASSERT_EQ(exitStatus(child), -1) << "it ended by itself";
        for (int number = 0; read(report[0], &number, sizeof(number)) == sizeof(number);)
            committed = number;
        close(report[0]);

        const Context ctx = box.context();
        ASSERT_EQ(uci_load(ctx.get(), "p", nullptr), UCI_OK) << box.fileText();
        const int count = std::stoi(values(ctx, "p.s.count")[0]);
        ASSERT_TRUE(count == committed || count == committed + 1) << count << " after " << committed;
        committed = count;
        const std::vector<std::string> list = values(ctx, "p.s.l");
        for (size_t i = 0; i < list.size(); ++i)
            ASSERT_EQ(list[i], std::to_string(count - static_cast<int>(list.size() - 1 - i))) << box.changes();
        ASSERT_EQ(list.size(), static_cast<size_t>(std::min(count, 5)));
    }
    EXPECT_GT(committed, 50) << "it never got anywhere";
}

constexpr int ROUNDS = 60;

int commitRounds(const Sandbox& box, const std::string& name)
{
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    for (int round = 1; round <= ROUNDS; ++round) {
        if (!p || edit(ctx, uci_set, "p.s." + name + "=" + std::to_string(round)) ||
            edit(ctx, uci_add_list, "p.s.l=" + name + std::to_string(round)) || uci_save(ctx.get(), p) ||
            uci_commit(ctx.get(), &p, false))
            return 1;
    }
    return 0;
}

// Loads until it sees the end; a list that becomes shorter, or misses what is committed, is a failure.
int watch(const Sandbox& box)
{
    for (size_t seen = 0; seen < 2 * ROUNDS;) {
        const Context ctx = box.context();
        if (!load(ctx))
            return 1;
        const size_t count = values(ctx, "p.s.l").size();
        if (count < seen || count > 2 * ROUNDS)
            return 2;
        seen = count;
    }
    return 0;
}

void expectBothWorkersWhole(const Sandbox& box)
{
    const Context ctx = box.context();
    ASSERT_NE(load(ctx), nullptr);
    std::vector<std::string> list = values(ctx, "p.s.l"), expected;
    for (const char* name : {"a", "b"}) {
        EXPECT_EQ(values(ctx, std::string("p.s.") + name), std::vector<std::string>{std::to_string(ROUNDS)});
        for (int round = 1; round <= ROUNDS; ++round)
            expected.push_back(name + std::to_string(round));
    }
    std::sort(list.begin(), list.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(list, expected);
    EXPECT_EQ(box.changes(), "");
}

TEST(Together, ProcessesThatCommitOnePackageLoseNothing)
{
    Sandbox box("config t 's'\n");
    const pid_t a = inChild([&] { return commitRounds(box, "a"); });
    const pid_t b = inChild([&] { return commitRounds(box, "b"); });
    const pid_t watcher = inChild([&] { return watch(box); });
    EXPECT_EQ(exitStatus(a), 0);
    EXPECT_EQ(exitStatus(b), 0);
    EXPECT_EQ(exitStatus(watcher), 0);
    expectBothWorkersWhole(box);
}

TEST(Together, ThreadsWithAContextEachLoseNothing)
{
    Sandbox box("config t 's'\n");
    int failedA = -1, failedB = -1;
    std::thread a([&] { failedA = commitRounds(box, "a"); });
    std::thread b([&] { failedB = commitRounds(box, "b"); });
    a.join();
    b.join();
    EXPECT_EQ(failedA + failedB, 0);
    expectBothWorkersWhole(box);
}

} // namespace
