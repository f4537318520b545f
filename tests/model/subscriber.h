#pragma once
// What a subscriber of the object receives, held against the motions that the model has seen begin.

#include "evidence.h"

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

#include <map>
#include <memory>
#include <optional>

#include <poll.h>

using Place = std::pair<std::string, std::string>; // x and y

/// A motion that has begun, in the order of the move requests.
struct MotionDue {
    std::string origin;
    std::optional<Place> target{}; // x and y; none: of a tour, not compared
    bool placed = true;            // whether it has a target at all
    bool cut = false;              // the target may be another, beyond the travel
    bool overtakes = false;        // it began while the head moved
    bool halted = false;           // by a command that began no motion
    bool failed = false;           // a request failed meanwhile
    bool refused = false;          // a move request failed
};

/// A subscription of one daemon, whose head rests after its first motions.
class Subscriber {
public:
    Subscriber(const std::string& socket, size_t before) : bus_(ubus_connect(socket.c_str()), ubus_free), last_(before)
    {
        uint32_t id = 0;
        own_.subscriber.cb = onNotification;
        require(bus_ && ubus_register_subscriber(bus_.get(), &own_.subscriber) == 0 &&
                    ubus_lookup_id(bus_.get(), "ptzd", &id) == 0 &&
                    ubus_subscribe(bus_.get(), &own_.subscriber, id) == 0,
                "no subscription");
    }
    /// Takes what has arrived; what led to it is in the evidence that is loaded afterwards.
    void receive()
    {
        for (pollfd socket{bus_->sock.fd, POLLIN, 0}; poll(&socket, 1, 0) > 0;)
            ubus_handle_event(bus_.get());
    }
    /// Judges what was received. @return whether that is all that is due, the head being at rest.
    bool judge(const std::vector<MotionDue>& due)
    {
        for (; judged_ < own_.seen.size(); ++judged_)
            judgeOne(own_.seen[judged_], due);
        return !open_ && last_ == due.size();
    }

private:
    using Fields = std::map<std::string, std::string>;
    struct Own {
        ubus_subscriber subscriber{}; // the library hands its object back
        std::vector<Fields> seen;
    };

    static int onNotification(ubus_context*, ubus_object* object, ubus_request_data*, const char*, blob_attr* message)
    {
        Fields fields;
        blob_attr* field = nullptr;
        size_t left = 0;
        blobmsg_for_each_attr (field, message, left)
            fields[blobmsg_name(field)] = blobmsg_type(field) == BLOBMSG_TYPE_STRING
                                              ? blobmsg_get_string(field)
                                              : std::to_string(blobmsg_get_u32(field));
        reinterpret_cast<Own*>(reinterpret_cast<char*>(object) - offsetof(ubus_subscriber, obj))
            ->seen.push_back(fields);
        return 0;
    }
    void judgeOne(const Fields& seen, const std::vector<MotionDue>& due)
    {
        std::string text = "a subscriber got";
        for (const auto& [name, value] : seen)
            text += " " + name + "=" + value;
        const auto field = [&](const char* name) { return seen.contains(name) ? seen.at(name) : ""; };
        const size_t id = strtoul(field("id").c_str(), nullptr, 10);
        require(id >= 1 && id <= due.size(), text + ", of " + std::to_string(due.size()) + " motions");
        const MotionDue& motion = due[id - 1];
        const Place place(field("x"), field("y"));
        if (field("state") == "moving") {
            require(!open_ && id == last_ + 1 && (by_ == 0 || by_ == id), text + " after " + std::to_string(last_));
            require(field("origin") == motion.origin && place.first.empty() != motion.placed &&
                        (!motion.target || motion.cut || place == *motion.target),
                    text + " instead of " + motion.origin +
                        (motion.target ? " to " + motion.target->first + " " + motion.target->second : ""));
            announced_ = place;
            last_ = id;
            open_ = true;
            by_ = 0;
            return;
        }
        const std::string outcome = field("outcome");
        by_ = strtoul(field("by").c_str(), nullptr, 10);
        require(open_ && id == last_ && (outcome == "superseded") == (by_ == id + 1),
                text + " after " + std::to_string(last_));
        open_ = false;
        require(outcome != "stopped" || motion.halted, text + ", which nobody stopped");
        require(outcome != "failed" || motion.failed, text + ", although no request failed");
        require(!motion.refused || motion.halted || outcome == "failed" || outcome == "superseded", text);
        require(outcome != "limit" || !motion.placed || place != announced_, text + " at its target");
        require(outcome != "reached" || !motion.placed || motion.overtakes || near(place, announced_),
                text + " for " + announced_.first);
        require((outcome != "reached" && outcome != "limit") || id == due.size() || !due[id].overtakes,
                text + ", which the next one overtook");
    }
    /// But for the signs, as the flip may have changed meanwhile.
    static bool near(const Place& a, const Place& b)
    {
        const auto apart = [](const std::string& one, const std::string& other) {
            return std::abs(std::abs(atoi(one.c_str())) - std::abs(atoi(other.c_str())));
        };
        return apart(a.first, b.first) <= 1 && apart(a.second, b.second) <= 1;
    }
    std::unique_ptr<ubus_context, decltype(&ubus_free)> bus_;
    Own own_;
    size_t judged_ = 0;
    size_t last_; // the motion that began last
    bool open_ = false;
    size_t by_ = 0; // what the end before has named
    Place announced_;
};
