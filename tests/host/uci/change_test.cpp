// Changes in memory: what the golden data do not show.
#include "sandbox.h"

#include <gtest/gtest.h>

namespace {

const char* const FILE_TEXT =
    "config t 's'\n\toption a '1'\n\tlist l 'x'\n\tlist l 'y'\n\tlist l 'x'\n\nconfig t 's2'\n";

class Change : public testing::Test {
protected:
    Sandbox box{FILE_TEXT};
    Context ctx = box.context();
    uci_package* p = load(ctx);

    std::string saved()
    {
        EXPECT_EQ(uci_save(ctx.get(), p), UCI_OK);
        return box.changes();
    }
};

TEST_F(Change, RefusesWhatMakesNoSenseAndRecordsNothing)
{
    const struct {
        ChangeCall* call;
        const char* tuple;
        int code;
    } cases[] = {
        {uci_set, "p=x", UCI_ERR_INVAL},
        {uci_set, "p.s.a", UCI_ERR_INVAL},
        {uci_set, "p.nosec.a=1", UCI_ERR_INVAL},
        {uci_set, "p.nosec.a=", UCI_ERR_INVAL},
        {uci_set, "p.new=a b", UCI_ERR_INVAL},
        {uci_set, "p.new=t\xc3\xa9", UCI_ERR_INVAL},
        {uci_set, "p.@t[7].a=1", UCI_ERR_INVAL},
        {uci_set, "p.s.a=1", UCI_OK},   // as it is
        {uci_set, "p.s.nope=", UCI_OK}, // nothing to delete
        {uci_delete, "p", UCI_ERR_INVAL},
        {uci_delete, "p.s.nope", UCI_ERR_NOTFOUND},
        {uci_add_list, "p.nosec.l=1", UCI_ERR_INVAL},
        {uci_del_list, "p.nosec.l=1", UCI_ERR_INVAL},
    };
    const std::string before = exported(ctx, p);
    for (const auto& [call, tuple, code] : cases)
        EXPECT_EQ(edit(ctx, call, tuple), code) << tuple;
    EXPECT_EQ(exported(ctx, p), before);
    EXPECT_EQ(saved(), "");
    EXPECT_FALSE(std::filesystem::exists(box.saveDir));
}

TEST_F(Change, TakesElementsFromAList)
{
    uci_option* l = uci_lookup_option(ctx.get(), uci_lookup_section(ctx.get(), p, "s"), "l");
    int calls = 0;
    for (; !uci_list_empty(&l->v.list); ++calls) {
        uci_ptr ptr{};
        ptr.p = p;
        ptr.s = l->section;
        ptr.option = "l";
        ptr.value = reinterpret_cast<uci_element*>(l->v.list.next)->name; // freed by the call itself
        ASSERT_EQ(uci_del_list(ctx.get(), &ptr), UCI_OK);
    }
    EXPECT_EQ(calls, 2); // x twice at once, then y
    EXPECT_EQ(saved(), "~p.s.l='x'\n~p.s.l='y'\n");
    EXPECT_EQ(edit(ctx, uci_add_list, "p.s.l=z"), UCI_OK);
}

} // namespace
