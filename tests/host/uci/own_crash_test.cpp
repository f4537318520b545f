// Commits that fail, processes that die in one, and several that commit the same package.
#include "sandbox.h"

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

enum class Fault {
    None,
    Fail, // the call fails; of a write, half is done
    Die   // the process ends in the call, as with kill -9; of a write, half is done
};

Fault plannedFault = Fault::None;
int callsLeft = 0;

// True for the call that is to fail.
bool meets()
{
    if (plannedFault == Fault::None || --callsLeft != 0)
        return false;
    if (plannedFault == Fault::Die)
        _exit(9);
    errno = ENOSPC;
    return true;
}

template <typename Call>
Call* real(Call*, const char* name)
{
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

// Lets the nth call from now on (from 1) meet the fault; the others do what they always do.
void plan(Fault fault, int nth)
{
    plannedFault = fault;
    callsLeft = nth;
}

// Ends the plan; true when its call came.
bool planMet()
{
    plannedFault = Fault::None;
    return callsLeft <= 0;
}

} // namespace

// In the place of the file calls that change something: calls of every source and library of the program come here.
extern "C" {

ssize_t write(int fd, const void* data, size_t size)
{
    static const auto call = real(&write, "write");
    if (plannedFault != Fault::None && callsLeft == 1)
        call(fd, data, size / 2);
    return meets() ? -1 : call(fd, data, size);
}

// Signal handlers write, too, and in one there is no looking up what the first call looks up.
[[gnu::constructor]] static void prepareWrite()
{
    (void)!write(-1, nullptr, 0);
}

// A call that does what it always does unless it is the one that is to fail.
#define FAULTY_CALL(name, parameters, arguments)                                                                       \
    int name parameters                                                                                                \
    {                                                                                                                  \
        static const auto call = real(&name, #name);                                                                   \
        return meets() ? -1 : call arguments;                                                                          \
    }                                                                                                                  \
    static_assert(true)

FAULTY_CALL(fsync, (int fd), (fd));
FAULTY_CALL(ftruncate, (int fd, off_t size) noexcept, (fd, size));
FAULTY_CALL(fchmod, (int fd, mode_t mode) noexcept, (fd, mode));
FAULTY_CALL(mkdir, (const char* path, mode_t mode) noexcept, (path, mode));
FAULTY_CALL(mkstemp, (char* path), (path));
FAULTY_CALL(rename, (const char* from, const char* to) noexcept, (from, to));
FAULTY_CALL(unlink, (const char* path) noexcept, (path));
}

namespace {

// Runs a function in a child process; the function's result is its exit status.
template <typename Function>
pid_t inChild(Function function)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(function());
    EXPECT_GT(child, 0);
    return child;
}

int exitStatus(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Each file call of a commit fails once, from the first to the last: the file is the old or the new one, the handle is
// good, and the next commit brings everything in order.
// The kernel ends a write of a killed process between two pages.
TEST(Crash, OfALongSaveNothingCountsUnlessAllIsThere)
{
    Sandbox sandbox("config s 'a'\n");
    const Context ctx = sandbox.context();
    ASSERT_NE(load(ctx), nullptr);
    ASSERT_EQ(edit(ctx, uci_set, "p.a.first=1"), UCI_OK);
    uci_package* package = uci_lookup_package(ctx.get(), "p");
    ASSERT_EQ(uci_save(ctx.get(), package), UCI_OK);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(edit(ctx, uci_set, "p.a.option" + std::to_string(i) + "=value"), UCI_OK);
    ASSERT_EQ(uci_save(ctx.get(), package), UCI_OK);
    const std::string whole = sandbox.changes();
    const size_t first = whole.find('\n') + 1;
    for (const size_t left :
         {first, first + 1, first + 16, first + 100, size_t{4096}, whole.size() - 1, whole.size()}) {
        sandbox.setChanges(whole.substr(0, left));
        const Context reader = sandbox.context();
        ASSERT_NE(load(reader), nullptr);
        EXPECT_EQ(values(reader, "p.a.first").size(), 1U) << "what was saved before counts";
        EXPECT_EQ(values(reader, "p.a.option0").size(), left == whole.size() ? 1U : 0U) << left;
        // What is saved next is not taken for a part of it.
        ASSERT_EQ(edit(reader, uci_set, "p.a.next=1"), UCI_OK);
        ASSERT_EQ(uci_save(reader.get(), uci_lookup_package(reader.get(), "p")), UCI_OK);
        const Context later = sandbox.context();
        ASSERT_NE(load(later), nullptr);
        EXPECT_EQ(values(later, "p.a.next").size(), 1U) << left;
    }
}

TEST(CommitFailure, OfAnyCallHarmsNothing)
{
    const std::string before = "config t 's'\n\tlist l 'x'\n", after = "\nconfig t 's'\n\tlist l 'x'\n\tlist l 'y'\n\n";
    int failures = 0;
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        Sandbox box(before);
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        ASSERT_EQ(edit(ctx, uci_add_list, "p.s.l=y"), UCI_OK);
        uci_package* const old = p;
        plan(Fault::Fail, nth);
        const int code = uci_commit(ctx.get(), &p, false);
        if (!planMet()) {
            EXPECT_EQ(code, UCI_OK);
            break;
        }
        failures += code != UCI_OK;
        EXPECT_TRUE(code == UCI_OK || code == UCI_ERR_IO);
        EXPECT_EQ(p == old, code != UCI_OK);
        EXPECT_TRUE(box.fileText() == before || box.fileText() == after) << box.fileText();
        EXPECT_EQ(values(ctx, "p.s.l"), (std::vector<std::string>{"x", "y"}));
        EXPECT_EQ(std::distance(fs::directory_iterator(box.configDir), {}), 1) << "a temporary file stays";

        const Context reader = box.context();
        load(reader);
        EXPECT_LE(values(reader, "p.s.l").size(), 2u);
        EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(box.fileText(), after);
        EXPECT_EQ(box.changes(), "");
    }
    EXPECT_GE(failures, 8);
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
        EXPECT_EQ(std::distance(fs::directory_iterator(box.configDir), {}), 1);
        EXPECT_EQ(box.changes(), "");
    }
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

TEST(Together, ProcessesAndThreadsThatCommitOnePackageLoseNothing)
{
    Sandbox box("config t 's'\n");
    const auto worker = [&](const char* name) { return inChild([=, &box] { return commitRounds(box, name); }); };
    const pid_t a = worker("a"), b = worker("b");
    int failedC = -1;
    std::thread c([&] { failedC = commitRounds(box, "c"); });
    EXPECT_EQ(commitRounds(box, "d"), 0);
    c.join();
    EXPECT_EQ(failedC, 0);
    for (const pid_t child : {a, b})
        EXPECT_EQ(exitStatus(child), 0);

    const Context ctx = box.context();
    ASSERT_NE(load(ctx), nullptr);
    std::vector<std::string> list = values(ctx, "p.s.l"), expected;
    for (const std::string name : {"a", "b", "c", "d"}) {
        EXPECT_EQ(values(ctx, "p.s." + name), std::vector<std::string>{std::to_string(ROUNDS)});
        for (int round = 1; round <= ROUNDS; ++round)
            expected.push_back(name + std::to_string(round));
    }
    std::sort(list.begin(), list.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(list, expected);
    EXPECT_EQ(box.changes(), "");
}

} // namespace
