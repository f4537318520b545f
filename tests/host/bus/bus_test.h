// Tests with a bus daemon of their own, and clients that write and read the bytes themselves.
#pragma once

#include "host_test.h"

using Messages = std::vector<Bytes>;

// What came for a request: everything up to the status, and the status.
struct Answer {
    Messages data;
    uint32_t status = ~0u;
};

class RawClient : public Peer {
public:
    // Connects. Without `greeted` the greeting is left to be received.
    explicit RawClient(const std::string& path, bool greeted = true) : Peer(socketAt(path, connect))
    {
        if (!greeted)
            return;
        const Bytes greeting = receive();
        id_ = u32At(greeting, 4);
        EXPECT_EQ(greeting, message(HELLO, 0, id_, {}));
    }

    uint32_t id() const
    {
        return id_;
    }

    // Sends a request of the daemon and receives up to its status.
    Answer ask(const Bytes& request) const
    {
        send(request);
        Answer answer;
        for (Bytes received; !(received = receive()).empty(); answer.data.push_back(received)) {
            // The daemon repeats the request's sequence number and peer.
            if (received[1] == STATUS && std::equal(request.begin() + 2, request.begin() + 8, received.begin() + 2)) {
                answer.status = u32At(find(received, A_STATUS), 0);
                break;
            }
        }
        return answer;
    }

    // Nothing was sent to this client that it has not received: the next thing is the answer to a ping.
    bool nothingWaits() const
    {
        const Answer answer = ask(message(PING, OWN_SEQ, 0, {}));
        return answer.status == 0 && answer.data == Messages{message(DATA, OWN_SEQ, 0, {})};
    }

    // Registers an object, which may have no name, and gives its id.
    uint32_t addObject(std::string_view name = "", const Bytes& signature = {}) const
    {
        const Bytes named = attr(A_OBJPATH, text(name)) + attr(A_SIGNATURE, signature);
        const Answer answer = ask(message(ADD_OBJECT, OWN_SEQ, 0, name.empty() ? Bytes{} : named));
        return u32At(find(answer.data.at(0), A_OBJID), 0);
    }
    void listenTo(std::string_view pattern) const
    {
        const Bytes fields = numberField("object", addObject()) + stringField("pattern", pattern);
        EXPECT_EQ(ask(::call(OWN_SEQ, 1, "register", fields)).status, 0u);
    }

private:
    static constexpr uint16_t OWN_SEQ = 0xf000; // well away from the tests'

    uint32_t id_ = 0;
};

class BusTest : public testing::Test {
protected:
    BusTest()
    {
        EXPECT_TRUE(waitUntil([&] { return Peer(socketAt(socketPath, ::connect)).fd() >= 0; }));
    }
    void TearDown() override // the daemon has to be alive and well, and to end in order
    {
        EXPECT_EQ(daemon.end(SIGTERM), 0);
        EXPECT_EQ(daemon.output(), "");
        EXPECT_FALSE(std::filesystem::exists(socketPath));
    }
    RawClient connect() const
    {
        return RawClient(socketPath);
    }

    const Folder folder;
    const std::string socketPath = folder.path / "bus";
    Background daemon{{UBUSD_PROGRAM, "-s", socketPath}};
};
