// A client that can say what the ordinary command cannot: repeated, nested and malformed arguments.
#pragma once

#include "head.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}
#undef fallthrough

class RawCaller {
public:
    explicit RawCaller(const Lab& lab) : connection_(ubus_connect((lab.folder() + "/var/run/ubus.sock").c_str()))
    {
        if (connection_)
            ubus_lookup_id(connection_, "ptzd", &object_);
    }
    ~RawCaller()
    {
        blob_buf_free(&message);
        if (connection_)
            ubus_free(connection_);
    }
    RawCaller(const RawCaller&) = delete;
    RawCaller& operator=(const RawCaller&) = delete;

    /// Calls with `message`; gives the error_code, or 1 when the reply has none.
    int call(const char* method)
    {
        int code = 1;
        const auto onData = [](ubus_request* request, int, blob_attr* reply) {
            const blobmsg_policy policy[] = {{"error_code", BLOBMSG_TYPE_INT32}};
            blob_attr* field = nullptr;
            blobmsg_parse(policy, 1, &field, blob_data(reply), static_cast<unsigned>(blob_len(reply)));
            if (field)
                *static_cast<int*>(request->priv) = static_cast<int>(blobmsg_get_u32(field));
        };
        EXPECT_EQ(ubus_invoke(connection_, object_, method, message.head, onData, &code, 10000), 0) << method;
        return code;
    }

    /// Sends the calls at once and gives their places in the order of the answers; empty when one has none in time.
    std::vector<size_t> answered(const std::vector<const char*>& methods)
    {
        struct Sent {
            ubus_request request;
            std::vector<size_t>* order;
            size_t place;
        };
        std::vector<size_t> order;
        std::vector<Sent> sent(methods.size());
        for (size_t i = 0; i < methods.size(); ++i) {
            EXPECT_EQ(ubus_invoke_async(connection_, object_, methods[i], message.head, &sent[i].request), 0);
            sent[i].order = &order;
            sent[i].place = i;
            sent[i].request.priv = &sent[i];
            sent[i].request.complete_cb = [](ubus_request* request, int) {
                auto* self = static_cast<Sent*>(request->priv);
                self->order->push_back(self->place);
            };
            ubus_complete_request_async(connection_, &sent[i].request);
        }
        for (Sent& call : sent)
            EXPECT_EQ(ubus_complete_request(connection_, &call.request, 10000), 0);
        return order;
    }

    /// Sends the calls and does not wait for an answer.
    void leave(const std::vector<const char*>& methods)
    {
        for (const char* method : methods) {
            ubus_request request;
            EXPECT_EQ(ubus_invoke_async(connection_, object_, method, message.head, &request), 0);
        }
    }

    blob_buf message{};

private:
    ubus_context* connection_;
    uint32_t object_ = 0;
};
