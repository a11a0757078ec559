// What the fault programs do with processes of their own.
#pragma once

#include <cstdio>
#include <new>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

/// Numbers that the process and its children share, and that stay when one of them is killed.
template <typename Numbers> Numbers &shared_with_children()
{
    void *memory = mmap(nullptr, sizeof(Numbers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (memory) Numbers{};
}

/// Starts a child that ends with the body's result as its status.
template <typename Body> pid_t start(Body &&body)
{
    std::fflush(stdout);
    const pid_t child = fork();
    if (child != 0)
        return child;
    const int status = body();
    std::fflush(stdout);
    _exit(status);
}

void end(pid_t child); // by SIGKILL

// The message bus, from outside.

int connect_to(const char *server);       // waits for it, and ends the process after ten seconds
std::string frame(std::string_view body); // which is to have its NUL
