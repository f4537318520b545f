#pragma once
// Drives lab_probe, a program that lives in a lab, command by command.

#include "lab/core/process.h"
#include "lab/lab.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

class Probe {
public:
    /// Starts the probe with the environment of the lab, or with another one.
    explicit Probe(const Lab& lab) : Probe(lab.environment())
    {
    }
    explicit Probe(std::vector<std::string> environment)
    {
        std::vector<char*> variables;
        for (std::string& variable : environment)
            variables.push_back(variable.data());
        variables.push_back(nullptr);
        char name[] = LAB_PROBE;
        char* command[] = {name, nullptr};
        int in[2] = {-1, -1};
        int out[2] = {-1, -1};
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
            abort();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            execve(name, command, variables.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        in_ = fdopen(in[1], "w");
        out_ = fdopen(out[0], "r");
    }
    ~Probe()
    {
        finish();
    }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    /// Sends a command without waiting for its answer.
    void send(const std::string& command)
    {
        fprintf(in_, "%s\n", command.c_str());
        fflush(in_);
    }
    std::string receive()
    {
        char line[8192];
        if (!fgets(line, sizeof(line), out_))
            return "the probe has ended";
        std::string text = line;
        if (text.back() == '\n')
            text.pop_back();
        return text;
    }
    std::string ask(const std::string& command)
    {
        send(command);
        return receive();
    }
    /// The first number of an answer.
    long number(const std::string& command)
    {
        return strtol(ask(command).c_str(), nullptr, 10);
    }
    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    }
    /// Kills it without a chance to tidy up.
    void kill9()
    {
        sendSignal(pid_, SIGKILL);
        finish();
    }
    /// Ends it orderly; the wait status.
    int finish()
    {
        int status = 0;
        if (pid_ == 0)
            return status;
        fclose(in_);
        fclose(out_);
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return status;
    }

private:
    pid_t pid_ = 0;
    FILE* in_ = nullptr;
    FILE* out_ = nullptr;
};

/// A lab without programs: only its folder, clock and motors, 1000 steps a second for each unit of speed.
class MotorLab : public testing::Test {
protected:
    MotorLab()
    {
        options_.factor = 1000;
        options_.startBus = options_.startCet = options_.startPtzd = false;
    }
    void SetUp() override
    {
        ASSERT_TRUE(lab_.up(options_)) << lab_.error();
    }
    LabOptions options_;
    Lab lab_;
};
