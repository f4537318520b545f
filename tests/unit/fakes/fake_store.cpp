// The configuration store in memory, and replies that are kept as codes.

#include "config/uci_store.h"
#include "fakes/fake_surroundings.h"
#include "ubus/method_reply.h"

#include <stdio.h>
#include <stdlib.h>

void cfg_uci_lock()
{
    ++fakes.transactions;
}

void cfg_uci_ensure_loaded(int32_t)
{
}

void cfg_uci_unlock()
{
    --fakes.transactions;
}

int32_t cfg_uci_pkg_reload(int32_t id)
{
    fakes.reloads.push_back(id);
    return 0;
}

int32_t cfg_uci_get_string_value(int32_t, const char* section, const char* option, char* out, size_t size)
{
    const auto found = fakes.options.find(std::string(section) + "." + option);
    if (found == fakes.options.end())
        return CFG_UCI_FAILED;
    snprintf(out, size, "%s", found->second.c_str());
    return 0;
}

int32_t cfg_uci_commit(int32_t)
{
    ++fakes.commits;
    return fakes.commitFails ? CFG_UCI_FAILED : 0;
}

int32_t cfg_uci_get_int_value(int32_t, const char* section, const char* option, int32_t* out)
{
    const auto found = fakes.options.find(std::string(section) + "." + option);
    if (found == fakes.options.end())
        return CFG_UCI_FAILED;
    *out = atoi(found->second.c_str()); // tests store plain numbers
    return 0;
}

int32_t cfg_uci_set_int_value(int32_t, const char* section, const char* option, int32_t value)
{
    if (fakes.settingFails)
        return CFG_UCI_FAILED;
    fakes.options[std::string(section) + "." + option] = std::to_string(value);
    return 0;
}

int replyCode(ubus_context*, ubus_request_data*, int32_t code)
{
    fakes.replies.push_back({"error_code", code});
    return 0;
}

int replyErrCode(ubus_context*, ubus_request_data*, int32_t code)
{
    fakes.replies.push_back({"err_code", code});
    return 0;
}
