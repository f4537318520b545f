#include "bus_client.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

blob_buf* startMessage(ubus_context* ctx)
{
    blob_buf* buf = &ctx->connection->output;
    return blob_buf_init(buf, 0) == 0 ? buf : nullptr;
}

bool putData(blob_buf* buf, const blob_attr* msg)
{
    return msg ? blob_put(buf, UBUS_ATTR_DATA, blob_data(msg), static_cast<unsigned>(blob_len(msg))) != nullptr
               : blob_put(buf, UBUS_ATTR_DATA, nullptr, 0) != nullptr;
}

bool sendMessage(ubus_context* ctx, uint8_t type, uint16_t seq, uint32_t peer)
{
    blob_attr* root = ctx->connection->output.head;
    if (ctx->connection->broken || blob_pad_len(root) > MAX_ROOT)
        return false;
    MessageHeader header{.version = 0, .type = type, .seq = cpu_to_be16(seq), .peer = cpu_to_be32(peer)};
    iovec parts[] = {{&header, sizeof(header)}, {root, blob_raw_len(root)}};
    size_t left = parts[0].iov_len + parts[1].iov_len;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    // A message that was begun is finished whatever it takes: anything else would break the stream.
    for (;;) {
        ssize_t count = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
        if (count < 0 && errno == EAGAIN) {
            waitForSocket(ctx, POLLOUT, -1);
        } else if (count < 0 && errno != EINTR) {
            ctx->sock.eof = true;
            return false;
        }
        if (count < 0)
            continue;
        left -= static_cast<size_t>(count);
        if (left == 0)
            return true;
        for (iovec& part : parts) {
            size_t sent = std::min(static_cast<size_t>(count), part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + sent;
            part.iov_len -= sent;
            count -= static_cast<ssize_t>(sent);
        }
    }
}
