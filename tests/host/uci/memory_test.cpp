// Memory running short: every allocation of a whole round of work fails once; nothing leaks, nothing breaks.
#include "sandbox.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);
}

namespace {

bool counting = false;
int allocationsLeft = 0; // until one fails; below that, none does
int blocks = 0;          // allocated and not freed while counting

bool fails()
{
    if (!counting || --allocationsLeft != 0)
        return false;
    errno = ENOMEM;
    return true;
}

void* counted(void* memory)
{
    if (counting && memory)
        ++blocks;
    return memory;
}

} // namespace

extern "C" {
void* malloc(size_t size) noexcept
{
    return fails() ? nullptr : counted(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) noexcept
{
    return fails() ? nullptr : counted(__libc_calloc(count, size));
}

void* realloc(void* memory, size_t size) noexcept
{
    if (fails())
        return nullptr;
    return memory ? __libc_realloc(memory, size) : counted(__libc_realloc(memory, size));
}

void free(void* memory) noexcept
{
    if (counting && memory)
        --blocks;
    __libc_free(memory);
}
}

namespace {

// Load, look up, change, save, commit, list; stops at the first failure and returns its code.
int work(const char* configDir, const char* saveDir)
{
    uci_context* ctx = uci_alloc_context();
    if (!ctx)
        return UCI_ERR_MEM;
    uci_package* p = nullptr;
    uci_section* s = nullptr;
    char** names = nullptr;
    char set[] = "p.s.a=2", list[] = "p.s.a=3", less[] = "p.s.l=x", rename[] = "p.s=t";
    uci_ptr ptr;
    const int code = [&]() -> int {
        if (uci_set_confdir(ctx, configDir) || uci_set_savedir(ctx, saveDir) || uci_load(ctx, "p", &p) ||
            uci_lookup_ptr(ctx, &ptr, set, true) || uci_set(ctx, &ptr) || uci_lookup_ptr(ctx, &ptr, list, true) ||
            uci_add_list(ctx, &ptr) || uci_lookup_ptr(ctx, &ptr, less, true) || uci_del_list(ctx, &ptr) ||
            uci_add_section(ctx, p, "rule", &s) || uci_reorder_section(ctx, s, 0) ||
            uci_lookup_ptr(ctx, &ptr, rename, true) || uci_rename(ctx, &ptr) || uci_commit(ctx, &p, false) ||
            uci_list_configs(ctx, &names))
            return ctx->err;
        return UCI_OK;
    }();
    free(names);
    uci_free_context(ctx);
    return code;
}

TEST(Memory, RunningShortLeaksAndBreaksNothing)
{
    const std::string before = "config t 's'\n\toption a '1'\n\tlist l 'x'\n\tlist l 'y'\n";
    const std::string after = "\nconfig rule\n\nconfig t 't'\n\tlist a '2'\n\tlist a '3'\n\tlist l 'y'\n\n";
    int failures = 0;
    for (int nth = 1;; ++nth) {
        Sandbox box(before);
        allocationsLeft = nth;
        blocks = 0;
        counting = true;
        const int code = work(box.configDir.c_str(), box.saveDir.c_str());
        counting = false;
        EXPECT_EQ(blocks, 0) << "allocation " << nth;
        if (allocationsLeft > 0) {
            EXPECT_EQ(code, UCI_OK);
            EXPECT_EQ(box.fileText(), after);
            break;
        }
        failures += code != UCI_OK;
        EXPECT_TRUE(code == UCI_ERR_MEM || box.fileText() == after) << "allocation " << nth << ": " << code;
        EXPECT_TRUE(box.fileText() == before || box.fileText() == after) << "allocation " << nth;
    }
    EXPECT_GT(failures, 50);
}

} // namespace
