// The stand-in for libuci: recorded calls replayed, and configuration that outlives kills, full disks and lost memory.
#include "child_process.hpp"
#include "device_test.hpp"

#include <uci.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace std::literals;

namespace {

int lock_error = 0; // of the calls that lock a file; 0: they lock it

/// What the library has synced to the disk, by path, and which of its calls is still to fail.
struct {
    bool watched = false;
    std::vector<std::string> paths;
    std::vector<std::string> change_lines; // as they then are
    int left = 0;                          // until the one that fails; 0: none
} synced;

} // namespace

// The library's own; the program's stand before the C library's.
#pragma GCC visibility push(default)
extern "C" int flock(int fd, int operation)
{
    errno = lock_error;
    return lock_error != 0 ? -1 : static_cast<int>(syscall(SYS_flock, fd, operation));
}

extern "C" int fsync(int fd)
{
    if (synced.watched) {
        synced.paths.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
        synced.change_lines.push_back(read_file("/tmp/.uci/t"));
    }
    if (synced.left > 0 && --synced.left == 0) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}
#pragma GCC visibility pop

namespace {

/// What the replay tool tells of a file of cases.
std::string replay(const std::string &name)
{
    const std::string tool = built_program("compat/libuci/replay/libuci_replay ");
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
    EXPECT_EQ(replay("own.json"), "31 of 31\n");
}

constexpr char file[] = "/etc/config/t";
constexpr char changes[] = "/tmp/.uci/t";

using context = std::unique_ptr<uci_context, decltype(&uci_free_context)>;

context new_context()
{
    return {uci_alloc_context(), uci_free_context};
}

/// Sets by paths with values, then commits; gives the first code that is none of success.
int commit(std::vector<std::string> paths, bool save_before = false)
{
    const context ctx = new_context();
    uci_ptr ptr{};
    for (std::string &path : paths) {
        if (const int code = uci_lookup_ptr(ctx.get(), &ptr, path.data(), true); code != UCI_OK)
            return code;
        if (const int code = uci_set(ctx.get(), &ptr); code != UCI_OK)
            return code;
    }
    if (const int code = save_before ? uci_save(ctx.get(), ptr.p) : UCI_OK; code != UCI_OK)
        return code;
    return uci_commit(ctx.get(), &ptr.p, false);
}

/// The package t by name, or by its path, which leaves change files aside, and its section s.
struct loaded_package {
    explicit loaded_package(const char *name)
    {
        EXPECT_EQ(uci_load(ctx.get(), name, &package), UCI_OK) << read_file(file);
        section = uci_lookup_section(ctx.get(), package, "s");
    }

    uci_ptr option(const char *name, const char *value) const
    {
        return {UCI_TYPE_UNSPEC, {}, package, section, nullptr, nullptr, nullptr, nullptr, name, value};
    }
    std::string text(const char *option) const { return uci_lookup_option_string(ctx.get(), section, option); }

    const context ctx = new_context();
    uci_package *package = nullptr;
    uci_section *section = nullptr;
};

/// Adds an item to t.s.l and writes their number to t.s.a.
void count_up()
{
    const loaded_package loaded{"t"};
    const std::string number = std::to_string(std::stoi(loaded.text("a")) + 1);
    uci_ptr set = loaded.option("a", number.c_str());
    EXPECT_EQ(uci_set(loaded.ctx.get(), &set), UCI_OK);
    uci_ptr add = loaded.option("l", "x");
    EXPECT_EQ(uci_add_list(loaded.ctx.get(), &add), UCI_OK);
    uci_package *committed = loaded.package;
    EXPECT_EQ(uci_commit(loaded.ctx.get(), &committed, false), UCI_OK);
}

/// t.s.l has as many items as t.s.a says.
void expect_counted(const char *package_name)
{
    const loaded_package loaded{package_name};
    const uci_option *list = uci_lookup_option(loaded.ctx.get(), loaded.section, "l");
    int items = 0;
    uci_element *e = nullptr;
    if (list) {
        uci_foreach_element (&list->v.list, e)
            ++items;
    }
    EXPECT_EQ(loaded.text("a"), std::to_string(items)) << package_name << read_file(file) << read_file(changes);
}

/// The temporary files in the configuration directory.
std::ptrdiff_t leftovers()
{
    return std::distance(std::filesystem::directory_iterator{"/etc/config"}, {}) - std::filesystem::exists(file);
}

TEST(libuci, two_processes_commit_at_once)
{
    write_file(file, "config x s\n\toption a 100\n\toption b 100\n");
    const auto writer = [](const std::string &path, bool save) {
        for (int i = 101; i <= 400; ++i)
            EXPECT_EQ(commit({path + std::to_string(i)}, save), UCI_OK) << path << i;
    };
    child_process a{[&] { writer("t.s.a=", true); }};
    child_process b{[&] { writer("t.s.b=", false); }};
    std::string last_a, last_b;
    while (last_a != "400" || last_b != "400") {
        const loaded_package now{file};
        ASSERT_GE(now.text("a"), last_a); // nothing is ever lost
        ASSERT_GE(now.text("b"), last_b);
        last_a = now.text("a");
        last_b = now.text("b");
    }
    a.join();
    b.join();
    EXPECT_EQ(leftovers(), 0);
}

TEST(libuci, killed_at_any_moment)
{
    write_file(file, "config x s\n\toption a 0\n");
    int killed_inside = 0;
    for (unsigned i = 0; i < 400; ++i) {
        child_process counting{[] {
            for (;;)
                count_up();
        }};
        usleep(1000 + i * 1009 % 3000);
        counting.end_with(SIGKILL);
        expect_counted("t");
        expect_counted(file);
        EXPECT_LE(leftovers(), 1);
        killed_inside += leftovers() != 0;
        if (i % 4 == 0) { // nobody's lock is left
            EXPECT_EQ(commit({"t.s.a=0", "t.s.l="}), UCI_OK);
            expect_counted(file);
            EXPECT_EQ(leftovers(), 0);
        }
    }
    EXPECT_GT(killed_inside, 0);
}

TEST(libuci, nul_spoils_one_change)
{
    write_file(file, "config x s\n\toption a 0\n\toption b 0\n");
    write_file(changes, std::string{"t.s.a='1\0\nt.s.a='2'\n'\nt.s.b=3\n", 30});
    const loaded_package loaded{"t"};
    EXPECT_EQ(loaded.text("a"), "0");
    EXPECT_EQ(loaded.text("b"), "3");
}

const std::string before = "config x s\n\toption a old\n", after = "\nconfig x 's'\n\toption a 'new'\n\n";

TEST(libuci, a_commit_is_on_the_disk_before_it_says_so)
{
    write_file(file, before);
    synced.watched = true;
    EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK);
    const char *const order[] = {changes, "/etc/config/.t.uci-", changes, "/etc/config"}; // lines, file, comment, name
    ASSERT_EQ(synced.paths.size(), std::size(order));
    for (std::size_t i = 0; i < std::size(order); ++i)
        EXPECT_TRUE(synced.paths[i].starts_with(order[i])) << i << synced.paths[i];
}

TEST(libuci, a_torn_line_does_not_hide_that_the_others_are_in_place)
{
    write_file(file, before);
    write_file(changes, "t.s.a='new'\nt.s.b='2");
    loaded_package loaded{"t"};
    synced.watched = true;
    EXPECT_EQ(uci_commit(loaded.ctx.get(), &loaded.package, false), UCI_OK);
    ASSERT_EQ(synced.paths.at(1), changes);
    EXPECT_TRUE(synced.change_lines[1].starts_with("t.s.a='new'\n#")) << synced.change_lines[1];
}

TEST(libuci, lines_that_are_in_the_file_already_are_not_applied_again)
{
    write_file(file, before);
    struct stat status;
    ASSERT_EQ(stat(file, &status), 0);
    write_file(changes, "t.s.a='1'\n# in inode " + std::to_string(status.st_ino) + " of device " +
                            std::to_string(status.st_dev) + "\nt.s.b='2'\n");
    const loaded_package loaded{"t"};
    EXPECT_EQ(loaded.text("a"), "old");
    EXPECT_EQ(loaded.text("b"), "2");
}

TEST(libuci, what_is_saved_begins_a_line_whatever_the_last_one_ends_with)
{
    const std::pair<const char *, const char *> cases[] = {
        {"t.s.b=1", "1"}, {"t.s.b=1\\", "1"}, {"t.s.b=1\\\n", "1"}, {"t.s.b=1\\\r\n", "1"}, {"t.s.b=1\\\r", "1\r"}};
    for (const auto &[last, b] : cases) {
        write_file(file, before);
        write_file(changes, last);
        EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK) << last;
        EXPECT_EQ(read_file(file), "\nconfig x 's'\n\toption a 'new'\n\toption b '"s + b + "'\n\n") << last;
    }
}

TEST(libuci, the_folder_for_changes_is_made_from_wherever_the_daemon_is)
{
    write_file(file, before);
    std::filesystem::remove_all("/tmp/.uci");
    ASSERT_EQ(chdir("/etc"), 0);
    EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK);
    EXPECT_EQ(read_file(file), after);
}

TEST(libuci, a_disk_that_fails_loses_nothing)
{
    const std::string line = "t.s.a='new'\n";
    const struct {
        int sync, want;
        std::string file, changes;
    } cases[] = {
        {1, UCI_ERR_IO, before, ""}, {2, UCI_ERR_IO, before, line}, {3, UCI_OK, after, ""}, {4, UCI_ERR_IO, after, ""}};
    for (const auto &[sync, want, package_file, change_file] : cases) {
        write_file(file, before);
        write_file(changes, "");
        synced.left = sync;
        EXPECT_EQ(commit({"t.s.a=new"}), want) << sync;
        EXPECT_EQ(read_file(file), package_file) << sync;
        EXPECT_EQ(read_file(changes), change_file) << sync;
        EXPECT_EQ(leftovers(), 0) << sync;
        EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK) << sync;
        EXPECT_EQ(read_file(file), after) << sync;
        EXPECT_EQ(read_file(changes), "") << sync;
    }
    write_file(file, "");
    synced.left = 1;
    EXPECT_EQ(commit({"t.s=x"}), UCI_ERR_IO);
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST(libuci, a_file_that_can_not_be_replaced_stays_with_its_changes)
{
    write_file(file, before);
    ASSERT_EQ(mount(file, file, "", MS_BIND, nullptr), 0);
    EXPECT_EQ(commit({"t.s.a=new"}), UCI_ERR_IO);
    EXPECT_EQ(read_file(file), before);
    EXPECT_EQ(read_file(changes), "t.s.a='new'\n");
    EXPECT_EQ(leftovers(), 0);
    ASSERT_EQ(umount(file), 0);
    EXPECT_EQ(commit({"t.s.b=2"}), UCI_OK);
    EXPECT_EQ(read_file(file), "\nconfig x 's'\n\toption a 'new'\n\toption b '2'\n\n");
}

TEST(libuci, names_that_are_missing_in_a_pointer_are_those_of_its_objects)
{
    write_file(file, before);
    const loaded_package loaded{"t"};
    uci_ptr ptr = loaded.option(nullptr, nullptr);
    EXPECT_EQ(uci_lookup_ptr(loaded.ctx.get(), &ptr, nullptr, false), UCI_OK);
    EXPECT_STREQ(ptr.section, "s");
    EXPECT_EQ(ptr.last, &loaded.section->e);
    ptr.o = uci_lookup_option(loaded.ctx.get(), loaded.section, "a");
    EXPECT_EQ(uci_delete(loaded.ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(uci_lookup_section(loaded.ctx.get(), loaded.package, "s"), loaded.section);
}

TEST(libuci, a_file_that_can_not_be_locked_is_neither_read_nor_written)
{
    write_file(file, before);
    const context ctx = new_context();
    uci_package *package = nullptr;
    lock_error = ENOLCK;
    EXPECT_EQ(uci_load(ctx.get(), "t", &package), UCI_ERR_IO);
    EXPECT_EQ(commit({"t.s.a=new"}), UCI_ERR_IO);
    lock_error = 0;
    EXPECT_EQ(read_file(file), before);
}

TEST(libuci, a_file_that_no_descriptor_is_left_for_is_not_missing)
{
    write_file(file, before);
    const context ctx = new_context();
    const rlimit none{0, 1024}, enough{1024, 1024};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(uci_load(ctx.get(), "t", nullptr), UCI_ERR_IO);
    setrlimit(RLIMIT_NOFILE, &enough); // for the leak checker
}

TEST(libuci, a_commit_leaves_as_many_descriptors_as_there_were)
{
    write_file(file, before);
    const int descriptors = open_descriptors();
    EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST(libuci, descriptor_0_is_as_good_as_any)
{
    write_file(file, before);
    child_process daemon{[] {
        close(STDIN_FILENO);
        EXPECT_EQ(commit({"t.s.a=new"}), UCI_OK);
    }};
    daemon.join();
    EXPECT_EQ(read_file(file), after);
}

TEST(libuci, a_pointer_that_was_looked_up_without_a_package_is_refused)
{
    uci_ptr ptr{};
    ptr.section = "s";
    ptr.value = "x";
    ptr.flags = uci_ptr::UCI_LOOKUP_DONE;
    EXPECT_EQ(uci_set(new_context().get(), &ptr), UCI_ERR_INVAL);
}

TEST(libuci, a_name_has_letters_digits_and_underscores)
{
    write_file(file, before);
    EXPECT_EQ(commit({"t.s.azAZ09_=1"}), UCI_OK);
    for (const char c : {'/', ':', '@', '[', '^', '`', '{', '\x7f', '\xe9'})
        EXPECT_EQ(commit({std::string{"t.s.a"} + c + "=1"}), UCI_ERR_PARSE) << c;
}

TEST(libuci, what_is_wrong_in_a_file_is_told_with_its_place)
{
    const std::pair<std::string, const char *> cases[] = {
        {"\n package", "package without name) at line 1, byte 1"}, // its line has no end, and does not count
        {"config", "config without name) at line 0, byte 0"},
        {"config x\n\tlist", "option without name) at line 1, byte 1"},
        {"package a.b\n", "invalid character in name field) at line 1, byte 12"},
        {"config x\n\toption a.b", "invalid character in name field) at line 1, byte 11"},
        {"config x\n\toption \n", "insufficient arguments) at line 2, byte 9"},
        {"config 'a\0'\n"s, "NUL character) at line 1, byte 12"},
    };
    for (const auto &[content, told] : cases) {
        write_file(file, content);
        const context ctx = new_context();
        uci_package *package = nullptr;
        EXPECT_EQ(uci_load(ctx.get(), "t", &package), UCI_ERR_PARSE) << content;
        char *text = nullptr;
        uci_get_errorstr(ctx.get(), &text, nullptr);
        EXPECT_EQ(std::string{"Parse error ("} + told, text);
        std::free(text);
    }
}

TEST(libuci, an_error_is_printed)
{
    testing::internal::CaptureStderr();
    uci_perror(nullptr, "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "x: Invalid argument\n");
}

TEST(libuci, calls_without_what_they_need_are_refused)
{
    write_file(file, before);
    const loaded_package loaded{"t"};
    uci_context *const ctx = loaded.ctx.get();
    uci_section *added = nullptr;
    uci_element *found = loaded.section ? &loaded.section->e : nullptr;
    const std::pair<const char *, int> cases[] = {
        {"lookup_ptr", uci_lookup_ptr(ctx, nullptr, nullptr, false)},
        {"lookup_next", uci_lookup_next(ctx, nullptr, &loaded.package->sections, "s")},
        {"lookup_next without list", uci_lookup_next(ctx, &found, nullptr, "s")},
        {"set", uci_set(ctx, nullptr)},
        {"add_section", uci_add_section(ctx, nullptr, "x", &added)},
        {"add_section without result", uci_add_section(ctx, loaded.package, "x", nullptr)},
        {"add_list", uci_add_list(ctx, nullptr)},
        {"delete", uci_delete(ctx, nullptr)},
        {"commit", uci_commit(ctx, nullptr, false)},
        {"revert", uci_revert(ctx, nullptr)},
        {"list_configs", uci_list_configs(ctx, nullptr)},
    };
    for (const auto &[call, result] : cases)
        EXPECT_EQ(result, UCI_ERR_INVAL) << call;
    EXPECT_EQ(found, nullptr);
}

TEST(libuci, a_context_as_it_begins)
{
    const context ctx = new_context();
    EXPECT_STREQ(ctx->confdir, "/etc/config");
    EXPECT_STREQ(ctx->conf2dir, UCI_CONF2DIR);
    EXPECT_STREQ(ctx->savedir, "/tmp/.uci");
    EXPECT_EQ(ctx->flags, UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
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
    const std::string old_file = "config x s\n\toption a 'an old value that is long'\n";
    const std::string new_file =
        "\nconfig x 's'\n\tlist a 'an old value that is long'\n\tlist a 'new'\n\toption b 'newer'\n\n"
        "config route\n\n";
    int refused = 0;
    for (bool happened = true; happened;) {
        write_file(file, old_file);
        write_file(changes, "");
        auto refuse = std::make_unique<allocation_refusal>(++refused, "libuci.so");
        const context ctx = new_context();
        const int code = ctx ? step_through(ctx.get()) : UCI_ERR_MEM;
        happened = refuse->happened();
        refuse.reset();
        EXPECT_EQ(code, happened ? UCI_ERR_MEM : UCI_OK) << refused;
        EXPECT_EQ(leftovers(), 0);
        const std::string content = read_file(file);
        EXPECT_EQ(content, content == new_file ? new_file : old_file) << refused;
        if (ctx && happened) { // which is as good as ever
            EXPECT_EQ(step_through(ctx.get()), UCI_OK) << refused;
        }
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
        EXPECT_EQ(std::system((compiler + flags + "/compat/libuci /program.c").c_str()), 0) << compiler;
}

} // namespace
