// kills [COUNT]: two writers save and commit, a reader reads, and all of them are killed with SIGKILL, COUNT times in
// all. Each writer appends the next number to a list of its own. No number may be lost once it was saved, or stand
// twice.
#include "device.hpp"
#include "files.hpp"
#include "processes.hpp"
#include "uciconfig.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <sstream>

#include <uci.h>

namespace {

constexpr int writers = 2;       // and then a reader
constexpr long list_length = 40; // then the list starts anew

struct numbers {
    std::atomic<long> tried[writers], saved[writers];
    std::atomic<long> reads, wrong;
};
numbers &shared = shared_with_children<numbers>();

void check(bool right, const char *what, int writer, long number)
{
    if (right)
        return;
    ++shared.wrong;
    std::printf("WRONG  %s: writer %d, number %ld (saved %ld, tried %ld)\n", what, writer, number,
                shared.saved[writer].load(), shared.tried[writer].load());
    std::fflush(stdout);
}

/// The last number of the writer's list, -1 for one that is not in order.
long last_number(int writer)
{
    const std::unique_ptr<char, decltype(&free)> text{config_lookup("kills.w%d.numbers", writer), free};
    std::istringstream list{text ? text.get() : ""};
    long last = -1;
    for (long number; list >> number; last = number) {
        if (last >= 0 && number != last + 1)
            return -1;
    }
    return last;
}

bool append(int writer, long number)
{
    const std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx{uci_alloc_context(), uci_free_context};
    std::string path = "kills.w" + std::to_string(writer) + ".numbers", value = std::to_string(number);
    uci_ptr at{};
    if (uci_lookup_ptr(ctx.get(), &at, path.data(), true) != UCI_OK)
        return false;
    at.value = value.c_str();
    const bool starts_anew = number % list_length == 1;
    return (starts_anew ? uci_set(ctx.get(), &at) : uci_add_list(ctx.get(), &at)) == UCI_OK &&
           uci_save(ctx.get(), at.p) == UCI_OK && (number % 2 == 0 || uci_commit(ctx.get(), &at.p, false) == UCI_OK);
}

void write_number(int writer)
{
    const long last = last_number(writer);
    check(last >= shared.saved[writer] && last <= shared.tried[writer], "lost", writer, last);
    shared.tried[writer] = last + 1;
    check(append(writer, last + 1), "not written", writer, last + 1);
    shared.saved[writer] = last + 1;
}

void read_numbers()
{
    for (int writer = 0; writer < writers; ++writer) {
        const long saved = shared.saved[writer];
        const long number = last_number(writer);
        check(number >= saved && number <= shared.tried[writer], "read", writer, number);
    }
    ++shared.reads;
}

pid_t start_victim(int which)
{
    return start([=] {
        while (shared.wrong == 0)
            which < writers ? write_number(which) : read_numbers();
        return 0;
    });
}

} // namespace

int main(int argc, char **argv)
{
    const long wanted = argc > 1 ? std::atol(argv[1]) : 20'000;
    enter_device();
    write_file("/etc/config/kills", "config numbers w0\n option numbers 0\nconfig numbers w1\n option numbers 0\n");
    pid_t victims[writers + 1];
    for (int which = 0; which <= writers; ++which)
        victims[which] = start_victim(which);

    std::mt19937 random{20'000};
    long most_files = 0;
    for (long kills = 0; kills < wanted && shared.wrong == 0; ++kills) {
        usleep(static_cast<useconds_t>(random() % 3000));
        const int which = static_cast<int>(random() % (writers + 1));
        end(victims[which]);
        const std::filesystem::directory_iterator files{"/etc/config"};
        most_files = std::max(most_files, std::distance(begin(files), std::filesystem::end(files)));
        victims[which] = start_victim(which);
    }
    for (const pid_t victim : victims)
        end(victim);
    const long wrong = shared.wrong + (most_files > 2); // the package and a leftover
    std::printf("kills: %ld, %ld and %ld numbers written, %ld reads, at most %ld leftovers, %ld wrong\n", wanted,
                shared.saved[0].load(), shared.saved[1].load(), shared.reads.load(), most_files - 1, wrong);
    return wrong == 0 && shared.saved[0] > 0 && shared.saved[1] > 0 && shared.reads > 0 ? 0 : 1;
}
