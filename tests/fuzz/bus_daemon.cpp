// The bus daemon: two or three clients that send it anything, beside one that behaves and must not notice.

#include "bus_message.h"
#include "fuzz.h"
#include "host/ubusd/dispatch.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <vector>

namespace {

constexpr int MAX_STEPS = 24;
constexpr size_t HOSTILE = 3;

/// The peer's end of a connection, and the whole messages that came out of it.
struct Peer {
    int fd = -1;
    uint32_t id = 0; // the daemon's for this connection
    std::vector<uint8_t> received;
    std::vector<std::vector<uint8_t>> messages;
};

class Rig {
public:
    Rig()
    {
        connect(witness_);
        MessageWriter object(MSG_ADD_OBJECT, 1, 0);
        object.put(ATTR_OBJPATH, "witness");
        object.put(ATTR_SIGNATURE, Bytes{});
        const auto answer = ask(object.finish());
        FUZZ_CHECK(answer.size() == 2 && readMessage(answer[0]).objectId, "not registered\n");
        object_ = *readMessage(answer[0]).objectId;
        for (Peer& peer : hostile_)
            connect(peer);
    }
    ~Rig()
    {
        hangUp(witness_);
        for (Peer& peer : hostile_)
            hangUp(peer);
    }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    void step(Input& input)
    {
        enum Action { RAW, MESSAGE, REPEATED, DRAIN, HANG_UP, HALF_CLOSE, ACTION_COUNT };
        Peer& peer = hostile_[input.byte() % HOSTILE];
        switch (input.byte() % ACTION_COUNT) {
        case RAW:
            send(peer, input.block());
            break;
        case MESSAGE:
            send(peer, busMessage(input, known_));
            break;
        case REPEATED: {
            const std::vector<uint8_t> one = busMessage(input, known_);
            for (int count = input.byte(); count > 0; --count)
                send(peer, one);
            break;
        }
        case DRAIN:
            drain(peer);
            break;
        case HANG_UP:
            hangUp(peer);
            connect(peer);
            break;
        case HALF_CLOSE:
            shutdown(peer.fd, input.byte() % 2 == 0 ? SHUT_WR : SHUT_RD);
            break;
        default:
            break;
        }
        serve();
        drain(witness_); // also of calls, which it leaves without an answer
    }

    void finish()
    {
        expectWitness("with others there");
        for (Peer& peer : hostile_) {
            settle(peer);
            hangUp(peer);
        }
        expectWitness("alone");
        FUZZ_CHECK(listed() == 1, "what the others had registered is still there\n");
    }

private:
    void connect(Peer& peer)
    {
        int pair[2];
        FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0, "no sockets\n");
        peer = {};
        peer.fd = pair[0];
        bus_.connect(pair[1]);
        drain(peer);
        FUZZ_CHECK(peer.messages.size() == 1 && peer.messages[0][1] == MSG_HELLO, "no greeting\n");
        peer.id = readU32(&peer.messages[0][4]);
        known_.push_back(peer.id);
    }

    void hangUp(Peer& peer)
    {
        close(peer.fd);
        peer.fd = -1;
        serve();
        FUZZ_CHECK(!bus_.find(peer.id), "a client that is gone is still served\n");
    }

    /// One turn for a client, as the daemon's loop gives it. False when there was nothing to do.
    bool turn(Client& client)
    {
        client.flush();
        pollfd socket{client.fd, static_cast<short>(client.wantsInput() ? POLLIN : 0), 0};
        if (poll(&socket, 1, 0) == 0 && !client.finished())
            return false;
        bus_.serve(client, true, (socket.revents & (POLLHUP | POLLERR)) != 0);
        return true;
    }

    void serve()
    {
        for (bool busy = true; busy;) {
            busy = false;
            for (Peer* peer : peers())
                if (Client* client = bus_.find(peer->id))
                    busy = turn(*client) || busy;
        }
    }

    std::array<Peer*, HOSTILE + 1> peers()
    {
        return {&witness_, &hostile_[0], &hostile_[1], &hostile_[2]};
    }

    /// What the socket does not take is lost, as with a client that does not wait.
    static void send(const Peer& peer, Bytes bytes)
    {
        (void)::send(peer.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    /// Takes what has arrived apart into messages.
    void drain(Peer& peer)
    {
        uint8_t block[65536];
        for (ssize_t count = 0; (count = recv(peer.fd, block, sizeof(block), 0)) > 0;)
            peer.received.insert(peer.received.end(), block, block + count);
        Bytes rest(peer.received);
        while (rest.size() >= FRAME_SIZE) {
            const size_t root = readU32(&rest[HEADER_SIZE]) & 0xFFFFFF;
            FUZZ_CHECK(root >= ATTR_SIZE && padded(root) <= MAX_ROOT, "root %zx\n", root);
            if (rest.size() < HEADER_SIZE + root)
                break;
            note(peer, rest.first(HEADER_SIZE + root));
            rest = rest.subspan(HEADER_SIZE + root);
        }
        peer.received.erase(peer.received.begin(), peer.received.end() - static_cast<ptrdiff_t>(rest.size()));
    }

    /// Answers are another client's own bytes, and so may be anything within their frame; the rest is the daemon's.
    void note(Peer& peer, Bytes raw)
    {
        peer.messages.emplace_back(raw.begin(), raw.end());
        Bytes attributes = raw.subspan(FRAME_SIZE);
        for (Attribute attribute; takeAttribute(attributes, attribute);)
            if ((attribute.id == ATTR_OBJID || attribute.id == ATTR_OBJTYPE) && attribute.payload.size() == 4 &&
                known_.size() < 64)
                known_.push_back(readU32(attribute.payload.data()));
        // Only the echo of a ping, which goes back to its sender, has another version.
        FUZZ_CHECK(raw[0] == 0 || (&peer != &witness_ && raw[1] == MSG_DATA), "version %u\n", raw[0]);
        if (raw[1] != MSG_DATA && raw[1] != MSG_STATUS)
            FUZZ_CHECK(raw.size() % 4 == 0 && attributes.empty(), "a malformed message\n");
    }

    /// Sends a request of the witness and gives what it is answered, up to the status.
    std::vector<std::vector<uint8_t>> ask(Bytes request)
    {
        drain(witness_);
        witness_.messages.clear();
        send(witness_, request);
        serve();
        drain(witness_);
        std::vector<std::vector<uint8_t>> answer;
        for (const auto& one : witness_.messages) {
            if (readU16(&one[2]) != readU16(&request[2]) || readU32(&one[4]) != 0)
                continue;
            answer.push_back(one);
            if (one[1] == MSG_STATUS)
                return answer;
        }
        FUZZ_CHECK(false, "no status\n");
        return answer;
    }

    void expectWitness(const char* when)
    {
        MessageWriter lookup(MSG_LOOKUP, 0x7001, 0);
        lookup.put(ATTR_OBJPATH, "witness");
        const auto answer = ask(lookup.finish());
        FUZZ_CHECK(answer.size() == 2 && readMessage(answer[0]).objectId == object_, "the witness is lost, %s\n", when);
    }

    size_t listed()
    {
        return ask(MessageWriter(MSG_LOOKUP, 0x7002, 0).finish()).size() - 1;
    }

    /// Reads all that there is for a client: a whole number of messages, while it is connected.
    void settle(Peer& peer)
    {
        for (size_t before = ~size_t{0}; before != peer.messages.size();) {
            before = peer.messages.size();
            drain(peer);
            if (Client* client = bus_.find(peer.id))
                client->flush();
            serve();
        }
        const Client* client = bus_.find(peer.id);
        FUZZ_CHECK(!client || client->muted() || peer.received.empty(), "%zu bytes of no message\n",
                   peer.received.size());
    }

    Bus bus_;
    Peer witness_;
    std::array<Peer, HOSTILE> hostile_;
    uint32_t object_ = 0;
    std::vector<uint32_t> known_; // ids that were seen, for the inputs to name
};

uint32_t randomState;

} // namespace

extern "C" ssize_t __wrap_getrandom(void* out, size_t size, unsigned flags);

/// Numbers that come again with every input.
ssize_t __wrap_getrandom(void* out, size_t size, unsigned)
{
    randomState += 0x10001;
    memcpy(out, &randomState, std::min(size, sizeof(randomState)));
    return static_cast<ssize_t>(size);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    randomState = 0;
    (void)uloop_init();
    Rig rig;
    Input input(data, size);
    for (int step = 0; step < MAX_STEPS && !input.empty(); ++step)
        rig.step(input);
    rig.finish();
    return 0;
}
