// The stand-in for libuci: recorded calls replayed, and configuration that outlives kills, full disks and lost memory.
#include "device_test.hpp"

#include <uci.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>

#include <fcntl.h>
#include <json-c/json.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

using json = json_object *;
struct deleter {
    void operator()(uci_context *ctx) const { uci_free_context(ctx); }
    void operator()(json_object *object) const { json_object_put(object); }
    void operator()(char *text) const { free(text); }
};
template <typename Handle> using owner = std::unique_ptr<Handle, deleter>;

json get(json from, const char *key)
{
    return json_object_object_get(from, key);
}

const char *text_of(json from, const char *key)
{
    return json_object_get_string(get(from, key));
}

mode_t mode(const char *octal)
{
    return static_cast<mode_t>(std::stoul(octal, nullptr, 8));
}

std::string permissions(const char *path)
{
    char octal[8];
    std::snprintf(octal, sizeof octal, "%04o", static_cast<unsigned>(fs::status(path).permissions()));
    return octal;
}

// What the library gave, as JSON text.
std::string q(const char *value)
{
    const owner<json_object> quoted{value ? json_object_new_string(value) : nullptr};
    return json_object_to_json_string(quoted.get());
}

std::string q(bool value)
{
    return value ? "true" : "false";
}

template <typename Object> std::string q(const Object *of)
{
    return q(of ? of->e.name : nullptr);
}

std::string array(uci_list &list, const std::function<std::string(uci_element *)> &each)
{
    std::string result;
    uci_element *e;
    uci_foreach_element (&list, e) {
        EXPECT_EQ(e->list.next->prev, &e->list);
        result += (result.empty() ? "" : ",") + each(e);
    }
    return "[" + result + "]";
}

std::string name(const uci_element *e)
{
    return q(e->name);
}

std::string value(uci_option *o)
{
    return !o ? "null" : o->type == UCI_TYPE_LIST ? array(o->v.list, name) : q(o->v.string);
}

std::string kind_and_name(const uci_element *e)
{
    const char *const kinds[] = {"unspec", "delta", "package ", "section ", "option "};
    return e ? q((std::string{kinds[e->type]} + e->name).c_str()) : "null";
}

std::string option(uci_element *e)
{
    EXPECT_EQ(e->type, UCI_TYPE_OPTION);
    return "[" + name(e) + "," + value(uci_to_option(e)) + "]";
}

std::string section(uci_element *e)
{
    uci_section *s = uci_to_section(e);
    EXPECT_TRUE(e->type == UCI_TYPE_SECTION && uci_lookup_section(s->package->ctx, s->package, e->name) == s);
    return R"({"name":)" + name(e) + R"(,"type":)" + q(s->type) + R"(,"anonymous":)" + q(s->anonymous) +
           R"(,"options":)" + array(s->options, option) + "}";
}

std::string package(uci_package *p)
{
    return R"({"name":)" + q(p) + R"(,"sections":)" + array(p->sections, section) + "}";
}

/// Performs the operations of a recorded case and compares what came back.
class replay {
public:
    void run(json op)
    {
        op_ = op;
        const std::string key = arg("ctx") ? arg("ctx") : "a";
        if (given("op") == "alloc")
            contexts_[key].reset(uci_alloc_context());
        const bool null = json_object_object_get_ex(op, "ctx", nullptr) && !arg("ctx");
        ctx_ = null ? nullptr : contexts_[key].get();
        p_ = ctx_ && arg("package") ? uci_lookup_package(ctx_, arg("package")) : nullptr;
        ptr_ = {};
        e_ = nullptr;
        operations_.at(arg("op"))();
    }

    void expect(json want)
    {
        json_object_object_foreach(want, key, value)
        {
            const std::string got = members_.at(key)();
            const owner<json_object> parsed{json_tokener_parse((got + " ").c_str())};
            EXPECT_TRUE(json_object_equal(value, parsed.get())) << key << " of " << op() << "\n  is " << got;
        }
    }

private:
    const char *arg(const char *key) const { return text_of(op_, key); }
    std::string given(const char *key) const { return arg(key) ? arg(key) : ""; }
    bool flag(const char *key) const { return !get(op_, key) || json_object_get_boolean(get(op_, key)); }
    const char *op() const { return json_object_to_json_string(op_); }
    const char *directory() const { return given("dir") == "$savedir" ? ctx_->savedir : arg("dir"); }

    std::string error_text(const char *prefix) const
    {
        char *made = nullptr;
        uci_get_errorstr(ctx_, &made, prefix);
        return q(owner<char>{made}.get());
    }

    int lookup(uci_ptr &ptr, const std::string &path, bool extended)
    {
        path_ = path;
        return uci_lookup_ptr(ctx_, &ptr, path_.data(), extended);
    }

    void look()
    {
        code_ = lookup(ptr_, given("path"), flag("extended"));
        p_ = ptr_.p;
        e_ = ptr_.last;
        text_ = "[" + q(ptr_.package) + "," + q(ptr_.section) + "," + q(ptr_.option) + "," + q(ptr_.value) + "]";
    }

    void change(int (*call)(uci_context *, uci_ptr *))
    {
        const std::string how = arg("how") ? arg("how") : "objects";
        if (arg("path") && (code_ = lookup(ptr_, given("path"), true)) != UCI_OK)
            return;
        if (!arg("path")) {
            uci_ptr found{};
            if (how == "objects" && arg("section"))
                lookup(found, given("package") + "." + given("section"), true);
            ptr_.s = found.s;
            ptr_.p = how == "strings" ? nullptr : p_;
            ptr_.package = how == "strings" ? arg("package") : nullptr;
            ptr_.section = how == "objects" ? nullptr : arg("section");
            ptr_.option = arg("option");
        }
        if (get(op_, "value"))
            ptr_.value = arg("value");
        code_ = call(ctx_, &ptr_);
        p_ = ptr_.p;
    }

    void next()
    {
        uci_section *s = uci_lookup_section(ctx_, p_, arg("section"));
        code_ = uci_lookup_next(ctx_, &e_, s ? &s->options : p_ ? &p_->sections : &ctx_->root, arg("name"));
    }

    void inlines()
    {
        ptr_.s = uci_lookup_section(ctx_, p_, arg("section"));
        ptr_.o = uci_lookup_option(ctx_, ptr_.s, arg("option"));
    }

    void list_configs()
    {
        char **names = nullptr;
        code_ = uci_list_configs(ctx_, &names);
        text_ = "[";
        for (char **each = names; each && *each; ++each)
            text_ += q(*each) + (each[1] ? "," : "");
        text_ += "]";
        free(names);
    }

    void perror()
    {
        const int saved = dup(2);
        dup2(open("/stderr", O_RDWR | O_CREAT | O_TRUNC, 0600), 2);
        uci_perror(ctx_, arg("prefix"));
        dup2(saved, 2);
        text_ = q(read_file("/stderr").c_str());
    }

    void locked()
    {
        const int fd = open(arg("path"), O_RDONLY | O_CLOEXEC);
        flock(fd, given("lock") == "shared" ? LOCK_SH : LOCK_EX);
        const pid_t pid = fork();
        if (pid == 0) {
            run(get(op_, "do"));
            _exit(0);
        }
        usleep(250'000);
        text_ = q(waitpid(pid, nullptr, WNOHANG) == 0);
        kill(pid, SIGKILL);
        close(fd);
    }

    const std::map<std::string_view, std::function<void()>> operations_ = {
        {"alloc", [] {}},
        {"free", [&] { contexts_.erase("a"); }},
        {"load", [&] { code_ = uci_load(ctx_, arg("name"), flag("out") ? &p_ : nullptr); }},
        {"unload", [&] { code_ = uci_unload(ctx_, p_); }},
        {"packages", [&] { text_ = array(ctx_->root, name); }},
        {"dump", [] {}},
        {"lookup", [&] { look(); }},
        {"next", [&] { next(); }},
        {"inline", [&] { inlines(); }},
        {"set", [&] { change(uci_set); }},
        {"add_list", [&] { change(uci_add_list); }},
        {"delete", [&] { change(uci_delete); }},
        {"revert", [&] { change(uci_revert); }},
        {"add_section", [&] { code_ = uci_add_section(ctx_, p_, arg("type"), &ptr_.s); }},
        {"save", [&] { code_ = uci_save(ctx_, p_); }},
        {"commit", [&] { code_ = uci_commit(ctx_, &p_, flag("overwrite")); }},
        {"add_delta_path", [&] { code_ = uci_add_delta_path(ctx_, directory()); }},
        {"set_savedir", [&] { code_ = uci_set_savedir(ctx_, directory()); }},
        {"set_confdir", [&] { code_ = uci_set_confdir(ctx_, directory()); }},
        {"list_configs", [&] { list_configs(); }},
        {"errorstr", [&] { text_ = error_text(arg("prefix")); }},
        {"perror", [&] { perror(); }},
        {"file", [&] { text_ = fs::exists(arg("path")) ? q(read_file(arg("path")).c_str()) : "null"; }},
        {"write", [&] { write_file(arg("path"), arg("content")); }},
        {"remove", [&] { fs::remove(arg("path")); }},
        {"umask", [&] { umask(mode(arg("mode"))); }},
        {"readonly", [&] { mount(nullptr, arg("path"), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr); }},
        {"locked", [&] { locked(); }},
    };
    const std::map<std::string_view, std::function<std::string()>> members_ = {
        {"ret", [&] { return std::to_string(code_); }},
        {"error", [&] { return error_text(nullptr); }},
        {"stage", [] { return R"("lookup")"; }},
        {"confdir", [&] { return q(ctx_->confdir); }},
        {"savedir", [&] { return q(ctx_->savedir); }},
        {"empty", [&] { return q(uci_list_empty(&ctx_->root)); }},
        {"listed", [&] { return q(uci_lookup_package(ctx_, p_->e.name) == p_); }},
        {"package", [&] { return given("op") == "inline" ? q(p_ != nullptr) : package(p_); }},
        {"section", [&] { return q(ptr_.s); }},
        {"option", [&] { return q(ptr_.o); }},
        {"string", [&] { return q(uci_lookup_option_string(ctx_, ptr_.s, arg("option"))); }},
        {"name", [&] { return q(ptr_.s); }},
        {"type", [&] { return q(ptr_.s->type); }},
        {"anonymous", [&] { return q(ptr_.s->anonymous); }},
        {"complete", [&] { return q((ptr_.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0); }},
        {"flags", [&] { return std::to_string(ptr_.flags); }},
        {"target",
         [&] {
             return q(std::map<int, const char *>{{2, "package"}, {3, "section"}, {4, "option"}}.at(ptr_.target));
         }},
        {"p", [&] { return q(p_); }},
        {"s", [&] { return q(ptr_.s); }},
        {"o", [&] { return given("op") == "lookup" ? q(ptr_.o) : value(ptr_.o); }},
        {"value", [&] { return value(ptr_.o); }},
        {"last", [&] { return kind_and_name(e_); }},
        {"found", [&] { return kind_and_name(e_); }},
        {"names", [&] { return text_; }},
        {"text", [&] { return text_; }},
        {"content", [&] { return text_; }},
        {"waits", [&] { return text_; }},
        {"mode", [&] { return q(permissions(arg("path")).c_str()); }},
    };
    std::map<std::string, owner<uci_context>> contexts_;
    json op_ = nullptr;
    uci_context *ctx_ = nullptr;
    uci_package *p_ = nullptr; // what the operation was about, or what it gave
    uci_ptr ptr_{};
    uci_element *e_ = nullptr;
    std::string path_;
    std::string text_;
    int code_ = -1;
};

const char *content_of(json file)
{
    return json_object_is_type(file, json_type_string) ? json_object_get_string(file) : text_of(file, "content");
}

void prepare(json files, json folders)
{
    for (const char *path : {"/etc/config", "/tmp", "/var"})
        mount("tmpfs", path, "tmpfs", 0, "mode=755");
    json_object_object_foreach(files, path, file)
    {
        fs::create_directories(fs::path{path}.parent_path());
        if (get(file, "link"))
            fs::create_symlink(text_of(file, "link"), path);
        else
            write_file(path, content_of(file), get(file, "mode") ? mode(text_of(file, "mode")) : 0644);
    }
    if (!folders)
        return;
    json_object_object_foreach(folders, folder, octal)
    {
        fs::create_directories(folder);
        chmod(folder, mode(json_object_get_string(octal)));
    }
}

/// These and no others are there after a case.
void expect_files(json before, json files, json folders)
{
    std::ptrdiff_t count = json_object_object_length(files) + json_object_object_length(folders);
    for (const char *root : {"/etc/config", "/tmp", "/var"})
        count -= std::distance(fs::recursive_directory_iterator{root}, {});
    EXPECT_EQ(count, 0);
    json_object_object_foreach(folders, folder, octal) EXPECT_EQ(permissions(folder), json_object_get_string(octal));
    json_object_object_foreach(files, path, file)
    {
        if (get(file, "link")) {
            EXPECT_EQ(fs::read_symlink(path), text_of(file, "link"));
            continue;
        }
        EXPECT_EQ(permissions(path), text_of(file, "mode")) << path;
        EXPECT_EQ(read_file(path), content_of(get(file, "same") ? get(before, path) : file)) << path;
    }
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

void expect_success(pid_t pid, const char *what)
{
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << what;
}

/// Replays each case of a file in a process of its own. Such a process inherits a failure, so the first one ends it.
void replay_all(const std::string &name, std::size_t count)
{
    const std::string path = host_path(SOURCE_DIR) + "/tests/data/" + name;
    const owner<json_object> vectors{json_object_from_file(path.c_str())};
    json cases = get(vectors.get(), "cases");
    ASSERT_EQ(json_object_array_length(cases), count);
    for (std::size_t i = 0; i < count && !testing::Test::HasFailure(); ++i) {
        json recorded = json_object_array_get_idx(cases, i);
        const pid_t pid = start([&] {
            unshare(CLONE_NEWNS);
            prepare(get(recorded, "files"), get(recorded, "dirs"));
            replay library;
            json ops = get(recorded, "ops");
            for (std::size_t n = 0; n < json_object_array_length(ops); ++n) {
                library.run(json_object_array_get_idx(ops, n));
                library.expect(get(json_object_array_get_idx(ops, n), "expect"));
            }
            json after = get(recorded, "after");
            expect_files(get(recorded, "files"), get(after, "files"), get(after, "dirs"));
        });
        expect_success(pid, text_of(recorded, "name"));
    }
}

TEST(libuci, recorded_calls)
{
    replay_all("libuci_vectors.json", 144);
}

TEST(libuci, beyond_the_recorded_calls)
{
    replay_all("libuci_own.json", 23);
}

constexpr char file[] = "/etc/config/t";
constexpr char saved_file[] = "/tmp/.uci/t";

owner<uci_context> new_context()
{
    return owner<uci_context>{uci_alloc_context()};
}

/// Sets by paths with values, then saves if asked to and commits; the first failing code.
int commit(std::vector<std::string> paths, bool save = false)
{
    const auto ctx = new_context();
    uci_ptr ptr{};
    int code = UCI_OK;
    for (std::string &path : paths) {
        code = code ? code : uci_lookup_ptr(ctx.get(), &ptr, path.data(), true);
        code = code ? code : uci_set(ctx.get(), &ptr);
    }
    code = code || !save ? code : uci_save(ctx.get(), ptr.p);
    return code ? code : uci_commit(ctx.get(), &ptr.p, false);
}

/// The texts of t.s.a and t.s.b, by name of the package or by its path, which leaves change files aside; "-" if broken.
std::string read_options(const char *package_name = file)
{
    const auto ctx = new_context();
    uci_package *p = nullptr;
    if (uci_load(ctx.get(), package_name, &p) != UCI_OK)
        return "-";
    uci_section *s = uci_lookup_section(ctx.get(), p, "s");
    const char *a = uci_lookup_option_string(ctx.get(), s, "a");
    const char *b = uci_lookup_option_string(ctx.get(), s, "b");
    return std::string{a ? a : "none"} + " " + (b ? b : "none");
}

/// The temporary files in the configuration directory.
std::ptrdiff_t leftovers()
{
    return std::distance(fs::directory_iterator{"/etc/config"}, {}) - fs::exists(file);
}

TEST(libuci, two_processes_commit_at_once)
{
    write_file(file, "config x s\n\toption a 100\n\toption b 100\n");
    const auto writer = [](const std::string &path, bool save) {
        for (int i = 101; i <= 400; ++i)
            EXPECT_EQ(commit({path + std::to_string(i)}, save), UCI_OK);
    };
    const pid_t a = start([&] { writer("t.s.a=", true); });
    const pid_t b = start([&] { writer("t.s.b=", false); });
    for (std::string last = "100 100", now; last != "400 400"; last = now) {
        now = read_options();
        ASSERT_TRUE(now.substr(0, 3) >= last.substr(0, 3) && now.substr(3) >= last.substr(3)) << last << ", " << now;
    }
    expect_success(a, "a");
    expect_success(b, "b");
    EXPECT_EQ(leftovers(), 0);
}

TEST(libuci, killed_at_any_moment)
{
    write_file(file, "config x s\n\toption a 0\n\toption b 0\n");
    std::mt19937 random{42};
    int killed_inside = 0;
    for (int i = 0; i < 400; ++i) {
        const pid_t pid = start([] {
            for (int n = 0;; ++n)
                commit({"t.s.a=" + std::to_string(n), "t.s.b=" + std::to_string(n)});
        });
        usleep(1000 + static_cast<useconds_t>(random() % 3000));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        for (const char *package_name : {"t", file}) {
            const std::string both = read_options(package_name);
            EXPECT_EQ(both.substr(0, both.find(' ')), both.substr(both.find(' ') + 1)) << read_file(file);
        }
        EXPECT_LE(leftovers(), 1);
        killed_inside += leftovers() != 0;
        if (i % 4 != 0)
            continue;
        EXPECT_EQ(commit({"t.s.a=free", "t.s.b=free"}), UCI_OK); // nobody's lock is left
        EXPECT_EQ(read_options(), "free free");
        EXPECT_EQ(leftovers(), 0);
    }
    EXPECT_GT(killed_inside, 0);
}

TEST(libuci, full_disk)
{
    const std::string value(20'000, 'v');
    for (const std::string folder : {"/etc/config", "/tmp/.uci"}) {
        fs::create_directories(folder);
        ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
        write_file(file, "config x s\n", 0640);
        write_file(saved_file, "t.s.b='1'\n");
        write_file(folder + "/.filler", std::string(49152, 'x'));
        EXPECT_EQ(commit({"t.s.a=" + value}), UCI_ERR_IO);
        EXPECT_EQ(read_file(file), "config x s\n");
        const std::string added = folder == "/etc/config" ? "t.s.a='" + value + "'\n" : "";
        EXPECT_EQ(read_file(saved_file), "t.s.b='1'\n" + added);
        fs::remove(folder + "/.filler");
        EXPECT_EQ(leftovers(), 0);
        EXPECT_EQ(commit({"t.s.a=" + value}), UCI_OK);
        EXPECT_EQ(read_options() + permissions(file) + read_file(saved_file), value + " 10640");
    }
}

/// A daemon's steps from load to revert, up to the first that fails.
int step_through(uci_context *ctx)
{
    uci_package *p = nullptr;
    uci_section *added = nullptr;
    std::string path = "t.@x[0].b=new";
    uci_ptr ptr{};
    uci_ptr all{};
    const std::function<int()> steps[] = {
        [&] { return uci_load(ctx, "t", &p); },
        [&] { return uci_lookup_ptr(ctx, &ptr, path.data(), true); },
        [&] { return uci_set(ctx, &ptr); },
        [&] { return ptr.option = "a", uci_add_list(ctx, &ptr); },
        [&] { return uci_add_section(ctx, p, "route", &added); },
        [&] { return uci_save(ctx, p); },
        [&] { return uci_set_savedir(ctx, "/var/state/a_directory_with_a_long_name"); },
        [&] { return uci_commit(ctx, &p, false); },
        [&] { return all.p = p, uci_revert(ctx, &all); },
    };
    int code = UCI_OK;
    for (const auto &step : steps)
        code = code ? code : step();
    return code;
}

TEST(libuci, memory_runs_out)
{
    const std::string old = "config x s\n\toption a 'an old value that is long'\n";
    int refused = 0;
    for (bool happened = true; happened;) {
        write_file(file, old);
        write_file(saved_file, "");
        {
            const allocation_refusal refuse{++refused, "libuci.so"};
            const auto ctx = new_context();
            const int code = ctx ? step_through(ctx.get()) : UCI_ERR_MEM;
            happened = refuse.happened();
            EXPECT_EQ(code, happened ? UCI_ERR_MEM : UCI_OK) << refused;
            if (ctx) // what it has is whole
                array(ctx->root, [](uci_element *e) { return package(uci_to_package(e)); });
        }
        EXPECT_EQ(leftovers(), 0);
        EXPECT_TRUE(read_file(file) == old || read_options() == "none new") << refused << read_file(file);
    }
    EXPECT_GT(refused, 50);
}

TEST(libuci, header_compiles_in_c_and_cpp)
{
    write_file("/program.c", R"(#include <uci.h>
int step(struct uci_context *ctx, struct uci_ptr *ptr);
int step(struct uci_context *ctx, struct uci_ptr *ptr)
{
    struct uci_element *e, *next;
    uci_foreach_element(&ptr->p->sections, e) ptr->s = uci_to_section(e);
    uci_foreach_element_safe(&ptr->s->options, next, e) if (uci_lookup_option_string(ctx, ptr->s, e->name)) ptr->last = e;
    return uci_list_empty(&ctx->root) || uci_to_package(ctx->root.next)->has_delta || list_to_element(ctx->root.prev)->name;
})");
    for (const std::string compiler : {"gcc -std=c11", "g++ -std=c++20 -x c++"})
        EXPECT_EQ(std::system((compiler + " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I" + host_path(SOURCE_DIR) +
                               "/compat/libuci /program.c")
                                  .c_str()),
                  0);
}

} // namespace
