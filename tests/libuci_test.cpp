// The stand-in for libuci: recorded calls replayed, and configuration that outlives kills, full disks and lost memory.
#include "device_test.hpp"

#include <uci.h>

#include <filesystem>
#include <memory>

#include <sys/wait.h>

namespace {

/// What the replay tool tells of a file of cases.
std::string replay(const std::string &name)
{
    const std::string tool = host_path(BINARY_DIR) + "/compat/libuci/replay/libuci_replay ";
    const std::string cases = host_path(SOURCE_DIR) + "/compat/libuci/replay/" + name;
    EXPECT_EQ(std::system((tool + cases + " >/told").c_str()), 0);
    return read_file("/told");
}

TEST(libuci, recorded_calls)
{
    EXPECT_EQ(replay("recorded.json"), "144 of 144\n");
}

TEST(libuci, beyond_the_recorded_calls)
{
    EXPECT_EQ(replay("own.json"), "28 of 28\n");
}

constexpr char file[] = "/etc/config/t";
constexpr char changes[] = "/tmp/.uci/t";

std::shared_ptr<uci_context> new_context()
{
    return {uci_alloc_context(), uci_free_context};
}

/// Sets by paths with values, then saves if asked to and commits.
bool commit(std::vector<std::string> paths, bool save = false)
{
    const auto ctx = new_context();
    uci_ptr ptr{};
    bool failed = false;
    for (std::string &path : paths)
        failed = failed || uci_lookup_ptr(ctx.get(), &ptr, path.data(), true) || uci_set(ctx.get(), &ptr);
    return !failed && !(save && uci_save(ctx.get(), ptr.p)) && !uci_commit(ctx.get(), &ptr.p, false);
}

/// The texts of t.s.a and t.s.b, by name of the package or by its path, which leaves change files aside.
std::pair<std::string, std::string> read_options(const char *package_name = file)
{
    const auto ctx = new_context();
    uci_package *p = nullptr;
    EXPECT_EQ(uci_load(ctx.get(), package_name, &p), UCI_OK);
    uci_section *s = uci_lookup_section(ctx.get(), p, "s");
    return {uci_lookup_option_string(ctx.get(), s, "a"), uci_lookup_option_string(ctx.get(), s, "b")};
}

/// Adds an item to t.s.l and writes their number to t.s.a.
void count_up()
{
    const auto ctx = new_context();
    uci_ptr ptr{};
    std::string path = "t.s.a";
    EXPECT_EQ(uci_lookup_ptr(ctx.get(), &ptr, path.data(), false), UCI_OK);
    const std::string number = std::to_string(std::stoi(ptr.o->v.string) + 1);
    ptr.value = number.c_str();
    uci_ptr list{UCI_TYPE_UNSPEC, {}, ptr.p, ptr.s, nullptr, nullptr, nullptr, nullptr, "l", "x"};
    if (!uci_set(ctx.get(), &ptr) && !uci_add_list(ctx.get(), &list))
        uci_commit(ctx.get(), &ptr.p, false);
}

/// Whether t.s.l has as many items as t.s.a says.
bool is_counted(const char *package_name)
{
    const auto ctx = new_context();
    uci_package *p = nullptr;
    EXPECT_EQ(uci_load(ctx.get(), package_name, &p), UCI_OK);
    uci_section *s = uci_lookup_section(ctx.get(), p, "s");
    const uci_option *l = uci_lookup_option(ctx.get(), s, "l");
    int items = 0;
    uci_element *e = nullptr;
    if (l)
        uci_foreach_element (&l->v.list, e)
            ++items;
    return std::to_string(items) == uci_lookup_option_string(ctx.get(), s, "a");
}

/// The temporary files in the configuration directory.
std::ptrdiff_t leftovers()
{
    return std::distance(std::filesystem::directory_iterator{"/etc/config"}, {}) - std::filesystem::exists(file);
}

/// Runs body in a process of its own, which fails if a check in it does.
template <typename Body> pid_t start(Body &&body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        std::exit(testing::Test::HasFailure());
    }
    return pid;
}

int wait_for(pid_t pid)
{
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

TEST(libuci, two_processes_commit_at_once)
{
    write_file(file, "config x s\n\toption a 100\n\toption b 100\n");
    const auto writer = [](const std::string &path, bool save) {
        for (int i = 101; i <= 400; ++i)
            EXPECT_TRUE(commit({path + std::to_string(i)}, save)) << path << i;
    };
    const pid_t a = start([&] { writer("t.s.a=", true); });
    const pid_t b = start([&] { writer("t.s.b=", false); });
    const std::pair<std::string, std::string> end{"400", "400"};
    for (auto [last, now] = std::pair{read_options(), end}; last != end; last = now) {
        now = read_options();
        ASSERT_TRUE(now.first >= last.first && now.second >= last.second) << now.first << ", " << now.second;
    }
    EXPECT_EQ(wait_for(a) | wait_for(b), 0);
    EXPECT_EQ(leftovers(), 0);
}

TEST(libuci, killed_at_any_moment)
{
    write_file(file, "config x s\n\toption a 0\n");
    int killed_inside = 0;
    for (unsigned i = 0; i < 400; ++i) {
        const pid_t pid = start([] {
            for (;;)
                count_up();
        });
        usleep(1000 + i * 1009 % 3000);
        kill(pid, SIGKILL);
        wait_for(pid);
        EXPECT_TRUE(is_counted("t") && is_counted(file)) << read_file(file) << read_file(changes);
        EXPECT_LE(leftovers(), 1);
        killed_inside += leftovers() != 0;
        if (i % 4 == 0) { // nobody's lock is left
            EXPECT_TRUE(commit({"t.s.a=0", "t.s.l="}) && is_counted(file) && leftovers() == 0);
        }
    }
    EXPECT_GT(killed_inside, 0);
}

TEST(libuci, nul_spoils_one_change)
{
    write_file(file, "config x s\n\toption a 0\n\toption b 0\n");
    write_file(changes, std::string{"t.s.a='1\0\nt.s.a='2'\n'\nt.s.b=3\n", 30});
    EXPECT_EQ(read_options("t"), (std::pair<std::string, std::string>{"0", "3"}));
}

/// A daemon's steps from load to revert, up to the first that fails.
int step_through(uci_context *ctx)
{
    uci_ptr ptr{};
    uci_ptr all{};
    uci_section *added = nullptr;
    std::string path = "t.@x[0].b=new";
    int code = uci_lookup_ptr(ctx, &ptr, path.data(), true);
    code = code ? code : uci_set(ctx, &ptr);
    uci_ptr by_hand{UCI_TYPE_UNSPEC, {}, ptr.p, ptr.s, ptr.o, nullptr, nullptr, nullptr, nullptr, "newer"};
    code = code ? code : uci_set(ctx, &by_hand);
    ptr.option = "a";
    code = code ? code : uci_add_list(ctx, &ptr);
    code = code ? code : uci_add_section(ctx, ptr.p, "route", &added);
    code = code ? code : uci_save(ctx, ptr.p);
    code = code ? code : uci_set_savedir(ctx, "/var/state/a_directory_with_a_long_name");
    code = code ? code : uci_commit(ctx, &ptr.p, false);
    all.p = ptr.p;
    return code ? code : uci_revert(ctx, &all);
}

TEST(libuci, memory_runs_out)
{
    const std::string before = "config x s\n\toption a 'an old value that is long'\n";
    const std::string after =
        "\nconfig x 's'\n\tlist a 'an old value that is long'\n\tlist a 'new'\n\toption b 'newer'\n\n"
        "config route\n\n";
    int refused = 0;
    for (bool happened = true; happened;) {
        write_file(file, before);
        write_file(changes, "");
        auto refuse = std::make_unique<allocation_refusal>(++refused, "libuci.so");
        const auto ctx = new_context();
        const int code = ctx ? step_through(ctx.get()) : UCI_ERR_MEM;
        happened = refuse->happened();
        refuse.reset();
        EXPECT_EQ(code, happened ? UCI_ERR_MEM : UCI_OK) << refused;
        EXPECT_EQ(leftovers(), 0);
        EXPECT_TRUE(read_file(file) == before || read_file(file) == after) << refused << read_file(file);
        EXPECT_TRUE(!ctx || !happened || step_through(ctx.get()) == UCI_OK) << refused;
    }
    EXPECT_GT(refused, 50);
}

TEST(libuci, header_compiles_in_c_and_cpp)
{
    write_file("/program.c", R"(#include <uci.h>
int step(struct uci_context *ctx, struct uci_ptr *ptr)
{
    struct uci_element *e, *next;
    uci_foreach_element(&ptr->p->sections, e) ptr->s = uci_to_section(e);
    uci_foreach_element_safe(&ptr->s->options, next, e) if (uci_lookup_option_string(ctx, ptr->s, e->name)) ptr->last = e;
    return uci_list_empty(&ctx->root) || uci_to_package(ctx->root.next)->has_delta || list_to_element(ctx->root.prev)->name;
})");
    const std::string flags = " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I" + host_path(SOURCE_DIR);
    for (const std::string compiler : {"gcc -std=c11", "g++ -std=c++20 -x c++"})
        EXPECT_EQ(std::system((compiler + flags + "/compat/libuci /program.c").c_str()), 0);
}

} // namespace
