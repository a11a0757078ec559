#include "program_run.hpp"

#include "device_test.hpp"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

outcome run(const std::string &command)
{
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/tmp/output", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open("/tmp/errors", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), read_file("/tmp/output"),
            read_file("/tmp/errors")};
}

void expect_outcomes(const std::string &begin, std::initializer_list<command_row> rows)
{
    for (const auto &[words, status, output, errors] : rows) {
        const outcome found = run(begin + words);
        EXPECT_EQ(found.status, status) << words;
        EXPECT_EQ(found.output, output) << words;
        EXPECT_EQ(found.errors, errors) << words;
    }
}

std::string run_on_terminal(const std::string &command)
{
    int terminal = -1;
    const winsize size{50, 200, 0, 0};
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    std::string output;
    char buffer[4096];
    for (ssize_t length; (length = read(terminal, buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<std::size_t>(length));
    waitpid(pid, nullptr, 0);
    close(terminal);
    std::erase(output, '\r');
    return output;
}
