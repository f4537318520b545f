// The golden conversation: what the clients sent is sent again, what the daemon sent must come again, byte for byte.

#include "bus_test.h"

#include <map>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

// Ids are random: numbers that the golden daemon gave out, and what they are this time.
class Ids {
public:
    // Has every id that `golden` is the first to show stand for what `actual` has in its place. Ids are given out in
    // greetings and in the answers to ADD_OBJECT only.
    void learn(const Bytes& golden, const Bytes& actual)
    {
        if (golden.at(1) == HELLO)
            known_[u32At(golden, 4)] = u32At(actual, 4);
        if (golden.at(1) != DATA)
            return;
        for (const uint8_t id : {A_OBJID, A_OBJTYPE}) {
            const Bytes value = find(golden, id);
            const Bytes now = find(actual, id);
            if (!value.empty() && !now.empty())
                known_.emplace(u32At(value, 0), u32At(now, 0));
        }
    }

    // All ids stand at multiples of 4.
    Bytes translate(Bytes golden) const
    {
        for (size_t at = 4; at + 4 <= golden.size(); at += 4) {
            const auto id = known_.find(u32At(golden, at));
            if (id != known_.end())
                std::ranges::copy(u32(id->second), golden.begin() + static_cast<ptrdiff_t>(at));
        }
        return golden;
    }

private:
    std::map<uint32_t, uint32_t> known_;
};

// The caller was root, in group root; now it is whoever runs the test.
Bytes withOwnNames(const Bytes& golden)
{
    if (find(golden, A_USER).empty())
        return golden;
    const passwd* user = getpwuid(geteuid());
    const group* group = getgrgid(getegid());
    const std::string userName = user ? user->pw_name : std::to_string(geteuid());
    const std::string groupName = group ? group->gr_name : std::to_string(getegid());
    Bytes attributes = attr(A_OBJID, find(golden, A_OBJID)) + attr(A_METHOD, find(golden, A_METHOD)) +
                       attr(A_USER, text(userName)) + attr(A_GROUP, text(groupName)) +
                       attr(A_DATA, find(golden, A_DATA));
    return message(INVOKE, static_cast<uint16_t>(u32At(golden, 0)), u32At(golden, 4), attributes);
}

TEST_F(BusTest, HoldsTheGoldenConversation)
{
    const auto records = readVectorFile("bus.txt");
    ASSERT_EQ(records.size(), 69u);
    std::map<std::string, RawClient> clients;
    Ids ids;
    for (const VectorRecord& record : records) {
        SCOPED_TRACE("message " + record.text("msg"));
        const Bytes golden = record.bytes("hex");
        RawClient& client = clients.try_emplace(record.text("conn"), socketPath(), false).first->second;
        if (record.text("dir") == "to-daemon") {
            client.send(ids.translate(golden));
            continue;
        }
        const Bytes actual = client.receive();
        ASSERT_GE(actual.size(), 12u);
        ids.learn(golden, actual);
        const Bytes expected = withOwnNames(ids.translate(golden));
        ASSERT_EQ(hexFromBytes(actual.data(), actual.size()), hexFromBytes(expected.data(), expected.size()));
    }
    for (auto& [name, client] : clients)
        EXPECT_TRUE(client.nothingWaits()) << name;
}

} // namespace
