// A part of a test in a process of its own.
#pragma once

#include <functional>

#include <sys/types.h>

/// Runs body in a child process. The test fails if a check in it does, or if it ends in any other way than by
/// returning.
class child_process {
public:
    explicit child_process(const std::function<void()> &body);
    ~child_process(); // joins
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    /// Waits until the child ends, and fails the test unless it ended well.
    void join();
    /// Ends it with a signal, wherever it is. The test fails if it ends in any other way.
    void end_with(int signal);
    pid_t pid() const { return pid_; }

private:
    int take_status();

    pid_t pid_;
};

/// What body gives in a child process, from 0 to 255; -1 if it crashes there, as json-c does where it has no memory for
/// the copy of a key.
int result_in_child(const std::function<int()> &body);
