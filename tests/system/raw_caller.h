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

    blob_buf message{};

private:
    ubus_context* connection_;
    uint32_t object_ = 0;
};
