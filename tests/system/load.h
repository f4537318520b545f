// Clients that call every method in random order with random arguments, until the object ends.
#pragma once

#include "head.h"

#include <atomic>

class Load {
public:
    explicit Load(const Lab& lab, unsigned seed);
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
    std::atomic<bool> ending_{false};
    std::atomic<int> answered_{0};
    std::vector<std::thread> clients_;
};
