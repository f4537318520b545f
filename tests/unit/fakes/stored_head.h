// A head whose configuration store is the real one, in a folder of the test's own, and whose handlers answer in JSON.
#pragma once

#include "fakes/fake_motor.h"
#include "fakes/fake_surroundings.h"

#include <gtest/gtest.h>

#include <string>

class StoredHead : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Replaces a package's file.
    static void write(const std::string& package, const std::string& text);
    static void remove(const std::string& package);
    /// What is stored, the file's whole text.
    static std::string file(const std::string& package);
    /// From now on nothing can be written.
    static void spoilStore();
    /// Calls a handler with a JSON object of arguments. @return its reply as compact JSON.
    static std::string call(UbusHandler* handler, const std::string& arguments = "{}");
    static bool reported(const std::string& function, const std::string& text);
};
