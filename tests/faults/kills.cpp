// kills [COUNT]: two writers save and commit, a reader reads, and all of them are killed with SIGKILL, COUNT times in
// all. Each writer appends the next number to a list of its own. No number may be lost once it was saved, or stand
// twice.
#include "device.hpp"
#include "files.hpp"
#include "logging.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include <csignal>
#include <sys/mman.h>
#include <sys/wait.h>
#include <uci.h>
#include <unistd.h>

namespace {

constexpr int writers = 2;
constexpr int reader = writers;  // its place among the victims
constexpr long list_length = 40; // then the list starts anew
constexpr char package_file[] = "/etc/config/kills";

/// What the processes know of each other; the numbers outlive the process that writes them.
struct shared_numbers {
    std::atomic<long> tried[writers], saved[writers];
    std::atomic<long> reads, wrong;
};
shared_numbers *shared;

void wrong(const char *what, int writer, long number)
{
    ++shared->wrong;
    std::printf("WRONG  %s: writer %d, number %ld (saved %ld, tried %ld)\n", what, writer, number,
                shared->saved[writer].load(), shared->tried[writer].load());
    std::fflush(stdout);
}

class package {
public:
    package() : ctx_{uci_alloc_context()} { uci_load(ctx_, "kills", &package_); }
    package(const package &) = delete;
    package &operator=(const package &) = delete;
    ~package() { uci_free_context(ctx_); }

    explicit operator bool() const { return package_ != nullptr; }

    /// The last number of the writer's list; 0 for none, -1 for a list that is not in order.
    long last_number(int writer) const
    {
        const std::string name = section_of(writer);
        uci_section *section = uci_lookup_section(ctx_, package_, name.c_str());
        uci_option *list = section ? uci_lookup_option(ctx_, section, "numbers") : nullptr;
        long last = 0;
        if (!list)
            return 0;
        if (list->type != UCI_TYPE_LIST)
            return -1;
        uci_element *element;
        uci_foreach_element (&list->v.list, element) {
            const long number = std::atol(element->name);
            if (last != 0 && number != last + 1)
                return -1;
            last = number;
        }
        return last;
    }

    bool append(int writer, long number, bool commit)
    {
        std::string path = "kills." + section_of(writer) + ".numbers", value = std::to_string(number);
        uci_ptr at{};
        if (uci_lookup_ptr(ctx_, &at, path.data(), true) != UCI_OK)
            return false;
        if (number % list_length == 1 && at.o && uci_delete(ctx_, &at) != UCI_OK)
            return false;
        path = "kills." + section_of(writer) + ".numbers";
        at = {};
        if (uci_lookup_ptr(ctx_, &at, path.data(), true) != UCI_OK)
            return false;
        at.value = value.c_str();
        return uci_add_list(ctx_, &at) == UCI_OK && uci_save(ctx_, package_) == UCI_OK &&
               (!commit || uci_commit(ctx_, &package_, false) == UCI_OK);
    }

private:
    static std::string section_of(int writer) { return writer == 0 ? "w0" : "w1"; }

    uci_context *ctx_;
    uci_package *package_ = nullptr;
};

[[noreturn]] void write_numbers(int writer)
{
    for (long number = shared->tried[writer];; ++number) {
        package kills;
        if (!kills || kills.last_number(writer) < 0) {
            wrong("no package, or a list out of order", writer, number);
            _exit(1);
        }
        // the number before may have been saved by a process that was killed before it could say so
        if (number == 0 || kills.last_number(writer) == number) {
            shared->saved[writer] = number;
            shared->tried[writer] = number + 1;
            if (!kills.append(writer, number + 1, number % 2 != 0))
                wrong("not written", writer, number + 1);
        } else if (!kills.append(writer, number, false)) {
            wrong("not written", writer, number);
        } else {
            --number;
        }
    }
}

[[noreturn]] void read_numbers()
{
    for (;; ++shared->reads) {
        for (int writer = 0; writer < writers; ++writer) {
            const long saved = shared->saved[writer];
            const package kills;
            const long number = kills ? kills.last_number(writer) : -1;
            const long tried = shared->tried[writer];
            const bool between_lists = number == 0 && (saved == 0 || tried / list_length != (saved - 1) / list_length);
            if (!between_lists && (number < saved || number > tried))
                wrong("read", writer, number);
        }
    }
}

pid_t start(int which)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    if (which == reader)
        read_numbers();
    write_numbers(which);
}

int leftovers()
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator{"/etc/config"})
        count += entry.path() != package_file;
    return count;
}

} // namespace

int main(int argc, char **argv)
{
    const long wanted = argc > 1 ? std::atol(argv[1]) : 20'000;
    enter_device();
    shared = static_cast<shared_numbers *>(
        mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    write_file(package_file, "config numbers w0\nconfig numbers w1\n");
    pid_t victims[writers + 1];
    for (int which = 0; which <= reader; ++which)
        victims[which] = start(which);

    std::mt19937 random{20'000};
    int most_leftovers = 0;
    for (long kills = 0; kills < wanted && shared->wrong == 0; ++kills) {
        usleep(static_cast<useconds_t>(random() % 3000));
        const int which = static_cast<int>(random() % (writers + 1));
        kill(victims[which], SIGKILL);
        waitpid(victims[which], nullptr, 0);
        most_leftovers = std::max(most_leftovers, leftovers());
        victims[which] = start(which);
    }
    for (const pid_t victim : victims) {
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
    }
    if (most_leftovers > 1)
        ++shared->wrong;
    std::printf("kills: %ld, %ld and %ld numbers written, %ld reads, at most %d leftovers, %ld wrong\n", wanted,
                shared->saved[0].load(), shared->saved[1].load(), shared->reads.load(), most_leftovers,
                shared->wrong.load());
    return shared->wrong == 0 && shared->saved[0] > 0 && shared->saved[1] > 0 && shared->reads > 0 ? 0 : 1;
}
