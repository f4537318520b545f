// A client that can send what the ordinary command cannot: repeated, nested and malformed arguments.
#pragma once

#include "head.h"

#include <span>

extern "C" {
#include <libubox/blobmsg_json.h>
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

    struct Call {
        const char* method;
        const char* arguments; // JSON
    };

    /// Sends the calls at once and gives their replies as text, in the order of the answers, each behind its place
    /// among the calls: "1 {...}". Fewer when one is not answered in time.
    std::vector<std::string> pipelined(std::span<const Call> calls)
    {
        struct Sent {
            ubus_request request;
            std::vector<std::string>* answers;
            size_t place;
        };
        std::vector<std::string> answers;
        std::vector<Sent> sent(calls.size());
        for (size_t i = 0; i < calls.size(); ++i) {
            blob_buf_init(&message, 0);
            blobmsg_add_json_from_string(&message, calls[i].arguments);
            EXPECT_EQ(ubus_invoke_async(connection_, object_, calls[i].method, message.head, &sent[i].request), 0);
            sent[i].answers = &answers;
            sent[i].place = i;
            sent[i].request.priv = &sent[i];
            sent[i].request.data_cb = [](ubus_request* request, int, blob_attr* reply) {
                auto* self = static_cast<Sent*>(request->priv);
                char* text = blobmsg_format_json(reply, true);
                self->answers->push_back(std::to_string(self->place) + " " + (text ? text : ""));
                free(text);
            };
            ubus_complete_request_async(connection_, &sent[i].request);
        }
        for (Sent& call : sent)
            EXPECT_EQ(ubus_complete_request(connection_, &call.request, 10000), 0);
        return answers;
    }

    blob_buf message{};

private:
    ubus_context* connection_;
    uint32_t object_ = 0;
};
