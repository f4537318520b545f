// Commits that fail, processes that die in one, and several that commit the same package.
#include "sandbox.h"

#include <algorithm>
#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// The call at which something happens, counted from 1; below 1 it is past, or never comes. Of a write half is done.
int callsLeft = 0;
bool dies = false; // the process ends there, as with kill -9; else the call fails

// True for the call that is to fail.
bool meets()
{
    if (callsLeft < 1 || --callsLeft != 0)
        return false;
    if (dies)
        _exit(9);
    errno = ENOSPC;
    return true;
}

template <typename Call>
Call* real(Call*, const char* name)
{
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In the place of the file calls that change something: calls of every source and library of the program come here.
extern "C" {

ssize_t write(int fd, const void* data, size_t size)
{
    static const auto call = real(&write, "write");
    if (callsLeft == 1)
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

int exitStatus(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Each file call of a commit fails once, or the process ends in it, from the first call to the last. The file is the
// old or the new one; who comes next sees the change whole or, if it was not saved, not at all, and once; the next
// commit brings everything in order.
TEST(Commit, OfWhichAnyCallFailsOrIsTheLastHarmsNothing)
{
    const std::string before = "config t 's'\n\tlist l 'x'\n";
    const std::string after = "\nconfig t 's'\n\tlist l 'x'\n\tlist l 'y'\n\nconfig rule\n\n";
    int failures = 0, nth = 0;
    const auto commitOnce = [&](const Sandbox& box) {
        const Context ctx = box.context();
        uci_package* p = load(ctx);
        uci_section* s = nullptr;
        EXPECT_EQ(edit(ctx, uci_add_list, "p.s.l=y") + uci_add_section(ctx.get(), p, "rule", &s), 0);
        uci_package* const old = p;
        callsLeft = nth;
        const int code = uci_commit(ctx.get(), &p, false);
        failures += code != UCI_OK;
        EXPECT_TRUE(code == UCI_OK || code == UCI_ERR_IO);
        EXPECT_EQ(p == old, code != UCI_OK);
        EXPECT_EQ(values(ctx, "p.s.l"), (Strings{"x", "y"})) << "the handle is good";
        if (code == UCI_OK || dies)
            return;
        EXPECT_EQ(std::distance(fs::directory_iterator(box.configDir), {}), 1) << "a temporary file stays";
        EXPECT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
        EXPECT_EQ(box.fileText(), after);
    };
    for (const bool fatal : {false, true}) {
        dies = fatal;
        bool met = true;
        for (nth = 1; met; ++nth) {
            SCOPED_TRACE(std::to_string(fatal) + " " + std::to_string(nth));
            const Sandbox box(before);
            if (fatal) {
                const pid_t child = fork();
                if (child == 0) {
                    commitOnce(box);
                    _exit(0);
                }
                met = exitStatus(child) == 9;
            } else {
                commitOnce(box);
                met = callsLeft == 0;
            }
            callsLeft = 0;
            EXPECT_TRUE(box.fileText() == before || box.fileText() == after) << box.fileText();
            const std::string pending = box.changes(), seen = box.show();
            EXPECT_EQ(box.run({"commit"}).status, 0);
            EXPECT_EQ(box.show(), seen);
            if (seen.find("'y'") == seen.npos)
                EXPECT_EQ(box.fileText(), before);
            else if (seen.find("rule") != seen.npos)
                EXPECT_EQ(box.fileText(), after);
            else
                EXPECT_TRUE(pending.starts_with("|p.s.l='y'\n")) << "torn behind a whole line";
            // A commit that writes takes away what a dead one left.
            EXPECT_EQ(box.run({"set", "p.s.z=1"}).status + box.run({"commit"}).status, 0);
            EXPECT_EQ(std::distance(fs::directory_iterator(box.configDir), {}), 1);
            EXPECT_EQ(box.changes(), "");
        }
    }
    EXPECT_GE(failures, 8);
}

// The kernel ends a write of a killed process between two pages.
TEST(Save, OfALongOneNothingCountsUnlessAllIsThere)
{
    const Sandbox box("config s 'a'\n");
    const Context ctx = box.context();
    uci_package* p = load(ctx);
    ASSERT_EQ(edit(ctx, uci_set, "p.a.first=1") + uci_save(ctx.get(), p), 0);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(edit(ctx, uci_set, "p.a.option" + std::to_string(i) + "=value"), UCI_OK);
    ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);
    const std::string whole = box.changes();
    const size_t first = whole.find('\n') + 1;
    for (const size_t left :
         {first, first + 1, first + 16, first + 100, size_t{4096}, whole.size() - 1, whole.size()}) {
        box.setChanges(whole.substr(0, left));
        const Context reader = box.context();
        uci_package* read = load(reader);
        EXPECT_EQ(values(reader, "p.a.first").size(), 1U) << "what was saved before counts";
        EXPECT_EQ(values(reader, "p.a.option0").size(), left == whole.size() ? 1U : 0U) << left;
        // What is saved next is not taken for a part of it.
        ASSERT_EQ(edit(reader, uci_set, "p.a.next=1") + uci_save(reader.get(), read), 0);
        EXPECT_EQ(box.run({"get", "p.a.next"}).out, "1\n") << left;
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

TEST(Commit, OfProcessesAndThreadsTogetherLosesNothing)
{
    const Sandbox box("config t 's'\n");
    const pid_t child = fork();
    if (child == 0)
        _exit(commitRounds(box, "a"));
    int failed = -1;
    std::thread other([&] { failed = commitRounds(box, "b"); });
    EXPECT_EQ(commitRounds(box, "c"), 0);
    other.join();
    EXPECT_EQ(failed + exitStatus(child), 0);
    const Context ctx = box.context();
    ASSERT_NE(load(ctx), nullptr);
    Strings list = values(ctx, "p.s.l"), expected;
    for (const std::string name : {"a", "b", "c"}) {
        EXPECT_EQ(values(ctx, "p.s." + name), Strings{std::to_string(ROUNDS)});
        for (int round = 1; round <= ROUNDS; ++round)
            expected.push_back(name + std::to_string(round));
    }
    std::ranges::sort(list);
    std::ranges::sort(expected);
    EXPECT_EQ(list, expected);
    EXPECT_EQ(box.changes(), "");
}

} // namespace
