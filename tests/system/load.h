// Clients that call every method in random order with random arguments, until the object ends.
#pragma once

#include "head.h"

#include <atomic>

class Load {
public:
    /// With pauses each client calls some hundred times a second at most.
    explicit Load(const Lab& lab, unsigned seed, unsigned clients = 4, bool pauses = true);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    [[nodiscard]] int answered() const
    {
        return answered_.load();
    }

private:
    void callOn(unsigned seed);

    const Lab& lab_;
    const bool pauses_;
    std::atomic<bool> ending_{false};
    std::atomic<int> answered_{0};
    std::vector<std::thread> clients_;
};
