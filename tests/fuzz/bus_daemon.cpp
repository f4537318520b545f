// The bus daemon: three clients that send it anything, beside one that behaves and must not notice. An input is a run
// of steps: which client, what it does, and the bytes that it sends or how it closes.

#include "fuzz.h"
#include "host/ubusd/dispatch.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace {

constexpr int MAX_STEPS = 24;

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
        RIG_CHECK(answers(object) == 1, "not registered\n");
        for (Peer& peer : others_)
            connect(peer);
    }
    ~Rig()
    {
        for (Peer& peer : peers_)
            close(peer.fd);
    }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    void step(Input& input)
    {
        enum Action { SEND, READ, HANG_UP, HALF_CLOSE, ACTION_COUNT };
        Peer& peer = others_[input.byte() % others_.size()];
        const int action = input.byte() % ACTION_COUNT;
        if (action == SEND) {
            int times = 1 + input.byte();
            for (const Bytes bytes = input.block(); times > 0; --times)
                send(peer, bytes);
        } else if (action == READ) {
            read(peer);
        } else if (action == HANG_UP) {
            hangUp(peer);
            connect(peer);
        } else {
            shutdown(peer.fd, input.byte() % 2 == 0 ? SHUT_WR : SHUT_RD);
        }
        serve();
        read(witness_); // also calls, which it leaves without an answer
    }

    /// The witness is still there and served; then the others go, of whom nothing may stay behind.
    void finish()
    {
        MessageWriter lookup(MSG_LOOKUP, 0x7001, 0);
        lookup.put(ATTR_OBJPATH, "witness");
        RIG_CHECK(answers(lookup) == 1, "the witness is lost\n");
        for (Peer& peer : others_) {
            settle(peer);
            hangUp(peer);
        }
        MessageWriter all(MSG_LOOKUP, 0x7002, 0);
        RIG_CHECK(answers(all) == 1, "what the others had registered is still there\n");
    }

private:
    void connect(Peer& peer)
    {
        int pair[2];
        RIG_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0, "no sockets\n");
        peer = {};
        peer.fd = pair[0];
        bus_.connect(pair[1]);
        read(peer);
        RIG_CHECK(peer.messages.size() == 1 && peer.messages[0][1] == MSG_HELLO, "no greeting\n");
        peer.id = readU32(&peer.messages[0][4]);
    }

    void hangUp(Peer& peer)
    {
        close(std::exchange(peer.fd, -1));
        serve();
        RIG_CHECK(!bus_.find(peer.id), "a client that is gone is still served\n");
    }

    /// Turns for the clients, as the daemon's loop gives them, until there is nothing to do for any.
    void serve()
    {
        for (bool busy = true; busy;) {
            busy = false;
            for (const Peer& peer : peers_) {
                Client* client = bus_.find(peer.id);
                if (!client)
                    continue;
                client->flush();
                pollfd socket{client->fd, static_cast<short>(client->wantsInput() ? POLLIN : 0), 0};
                if (poll(&socket, 1, 0) == 0 && !client->finished())
                    continue;
                bus_.serve(*client, true, (socket.revents & (POLLHUP | POLLERR)) != 0);
                busy = true;
            }
        }
    }

    /// What the socket does not take is lost, as with a client that does not wait.
    static void send(const Peer& peer, Bytes bytes)
    {
        (void)::send(peer.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    /// Takes what has arrived apart into messages.
    static void read(Peer& peer)
    {
        uint8_t block[65536];
        for (ssize_t count = 0; (count = recv(peer.fd, block, sizeof(block), 0)) > 0;)
            peer.received.insert(peer.received.end(), block, block + count);
        Bytes rest(peer.received);
        while (rest.size() >= FRAME_SIZE) {
            const size_t root = readU32(&rest[HEADER_SIZE]) & 0xFFFFFF;
            RIG_CHECK(root >= ATTR_SIZE && padded(root) <= MAX_ROOT, "root %zx\n", root);
            if (rest.size() < HEADER_SIZE + root)
                break;
            const Bytes message = rest.first(HEADER_SIZE + root);
            peer.messages.emplace_back(message.begin(), message.end());
            rest = rest.subspan(message.size());
        }
        peer.received.erase(peer.received.begin(), peer.received.end() - static_cast<ptrdiff_t>(rest.size()));
    }

    /// Sends a request of the witness. How much it is answered before the status, which must come.
    size_t answers(MessageWriter& writer)
    {
        read(witness_);
        witness_.messages.clear();
        const Bytes request = writer.finish();
        send(witness_, request);
        serve();
        read(witness_);
        size_t count = 0;
        for (const auto& one : witness_.messages) {
            const bool answer = std::equal(one.begin() + 2, one.begin() + HEADER_SIZE, request.begin() + 2);
            if (answer && one[1] == MSG_STATUS)
                return count;
            count += answer;
        }
        RIG_CHECK(false, "no status\n");
        return 0;
    }

    /// Reads all that there is for a client: a whole number of messages, while it is connected.
    void settle(Peer& peer)
    {
        for (size_t before = ~size_t{0}; before != peer.messages.size();) {
            before = peer.messages.size();
            read(peer);
            serve();
        }
        const Client* client = bus_.find(peer.id);
        RIG_CHECK(!client || client->muted() || peer.received.empty(), "%zu bytes of no message\n",
                  peer.received.size());
    }

    Bus bus_;
    std::array<Peer, 4> peers_;
    Peer& witness_ = peers_[0];
    const std::span<Peer> others_ = std::span(peers_).subspan(1);
};

uint32_t randomState;

} // namespace

extern "C" ssize_t __wrap_getrandom(void* out, size_t size, unsigned flags);

/// Numbers that come again with every input, which can therefore name the ids of clients and objects.
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
