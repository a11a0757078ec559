// The stand-in for libuci: recorded calls replayed, and configuration that outlives kills, full disks and strange
// bytes.
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
const char *text(json from, const char *key)
{
    return json_object_get_string(get(from, key));
}
mode_t mode(const char *octal)
{
    return static_cast<mode_t>(std::stoul(octal, nullptr, 8));
}

// JSON texts: what the library gave, in the form of the recording.
std::string q(bool value)
{
    return value ? "true" : "false";
}
std::string q(const char *value)
{
    const owner<json_object> quoted{value ? json_object_new_string(value) : nullptr};
    return json_object_to_json_string(quoted.get());
}
template <typename Object> std::string q(const Object *of)
{
    return q(of ? of->e.name : nullptr);
}

/// The template with its percent signs replaced by the texts.
std::string fill(std::string_view form, std::initializer_list<std::string> texts)
{
    std::string result;
    auto next = texts.begin();
    for (const char c : form)
        c == '%' ? result += *next++ : result += c;
    return result;
}

std::string permissions(const fs::path &path)
{
    char octal[8];
    std::snprintf(octal, sizeof octal, "%04o", static_cast<unsigned>(fs::status(path).permissions()));
    return q(octal);
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
    const char *const kinds[] = {"unspec", "delta", "package", "section", "option"};
    return e ? q((std::string{kinds[e->type]} + " " + e->name).c_str()) : "null";
}

std::string option(uci_element *e)
{
    EXPECT_EQ(e->type, UCI_TYPE_OPTION);
    return fill("[%,%]", {name(e), value(uci_to_option(e))});
}

std::string section(uci_element *e)
{
    uci_section *s = uci_to_section(e);
    EXPECT_TRUE(e->type == UCI_TYPE_SECTION && uci_lookup_section(s->package->ctx, s->package, e->name) == s);
    return fill(R"({"name":%,"type":%,"anonymous":%,"options":%})",
                {name(e), q(s->type), q(s->anonymous), array(s->options, option)});
}

std::string package(uci_package *p)
{
    return p ? fill(R"({"name":%,"sections":%})", {q(p), array(p->sections, section)}) : "null";
}

/// Performs the operations of a recorded case and tells, as the members of an object, what came back.
class replay {
public:
    std::string answer(json op)
    {
        op_ = op;
        const std::string key = arg("ctx") ? arg("ctx") : "a";
        if (arg("op") == std::string_view{"alloc"})
            contexts_[key].reset(uci_alloc_context());
        ctx_ = json_object_object_get_ex(op, "ctx", nullptr) && !arg("ctx") ? nullptr : contexts_[key].get();
        p_ = ctx_ && arg("package") ? uci_lookup_package(ctx_, arg("package")) : nullptr;
        return operations_.at(arg("op"))();
    }

private:
    const char *arg(const char *member) const { return text(op_, member); }
    std::string given(const char *member) const { return arg(member) ? arg(member) : ""; }
    bool flag(const char *member) const { return !get(op_, member) || json_object_get_boolean(get(op_, member)); }

    std::string error_text(const char *prefix) const
    {
        char *made = nullptr;
        uci_get_errorstr(ctx_, &made, prefix);
        return q(owner<char>{made}.get());
    }

    /// A call's code and its error text, or after success what else it gave.
    std::string code(
        int code, const std::function<std::string()> &results = [] { return std::string{}; }) const
    {
        const std::string after = code == UCI_OK ? results() : fill(R"("error":%)", {error_text(nullptr)});
        return fill(R"("ret":%%)", {std::to_string(code), (after.empty() ? "" : ",") + after});
    }

    std::string listed(uci_package *p) const
    {
        const bool there = p && uci_lookup_package(ctx_, p->e.name) == p;
        return p ? fill(R"("package":%,"listed":%)", {package(p), q(there)}) : "";
    }

    std::string directories() const
    {
        return ctx_ ? fill(R"("confdir":%,"savedir":%)", {q(ctx_->confdir), q(ctx_->savedir)}) : "";
    }

    std::string directories(int (*call)(uci_context *, const char *)) const
    {
        const char *dir = arg("dir") && arg("dir") == std::string{"$savedir"} ? ctx_->savedir : arg("dir");
        const std::string result = code(call(ctx_, dir));
        return result + (ctx_ ? "," : "") + directories();
    }

    std::string change(int (*call)(uci_context *, uci_ptr *), std::string (*results)(const uci_ptr &))
    {
        uci_ptr ptr{};
        const std::string how = arg("path") ? "path" : arg("how") ? arg("how") : "objects";
        std::string path = how == "path" ? given("path") : given("package") + "." + given("section");
        if (how == "path" || (how == "objects" && arg("section"))) {
            if (const int failed = uci_lookup_ptr(ctx_, &ptr, path.data(), true))
                return R"("stage":"lookup",)" + code(failed);
        }
        if (how != "path") {
            uci_section *found = ptr.s;
            ptr = {};
            ptr.s = found;
            ptr.p = how == "strings" ? nullptr : p_;
            ptr.package = how == "strings" ? arg("package") : nullptr;
            ptr.section = how == "objects" ? nullptr : arg("section");
            ptr.option = arg("option");
        }
        if (get(op_, "value"))
            ptr.value = arg("value");
        return code(call(ctx_, &ptr), [&] { return results(ptr); });
    }

    static std::string changed(const uci_ptr &ptr) { return fill(R"("s":%,"o":%)", {q(ptr.s), value(ptr.o)}); }
    static std::string gone(const uci_ptr &) { return ""; }
    static std::string reverted(const uci_ptr &ptr) { return fill(R"("package":%)", {package(ptr.p)}); }

    std::string lookup() const
    {
        const char *const targets[] = {"unspec", "delta", "package", "section", "option"};
        uci_ptr ptr{};
        std::string path = arg("path");
        return code(uci_lookup_ptr(ctx_, &ptr, path.data(), flag("extended")), [&] {
            return fill(R"("complete":%,"flags":%,"target":%,"names":[%,%,%,%],"p":%,"s":%,"o":%,"last":%%%)",
                        {q((ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0), std::to_string(ptr.flags),
                         q(targets[ptr.target]), q(ptr.package), q(ptr.section), q(ptr.option), q(ptr.value), q(ptr.p),
                         q(ptr.s), q(ptr.o), kind_and_name(ptr.last), ptr.o ? R"(,"value":)" : "",
                         ptr.o ? value(ptr.o) : ""});
        });
    }

    std::string next() const
    {
        uci_section *s = uci_lookup_section(ctx_, p_, arg("section"));
        uci_element *e = nullptr;
        const int result = uci_lookup_next(ctx_, &e, s ? &s->options : p_ ? &p_->sections : &ctx_->root, arg("name"));
        return code(result) + fill(R"(,"found":%)", {kind_and_name(e)});
    }

    std::string inlines() const
    {
        uci_section *s = uci_lookup_section(ctx_, p_, arg("section"));
        return fill(R"("package":%,"section":%,"option":%,"string":%)",
                    {q(p_ != nullptr), q(s), q(uci_lookup_option(ctx_, s, arg("option"))),
                     q(uci_lookup_option_string(ctx_, s, arg("option")))});
    }

    std::string load() const
    {
        uci_package *p = nullptr;
        return code(uci_load(ctx_, arg("name"), flag("out") ? &p : nullptr), [&] { return listed(p); });
    }

    std::string add_section() const
    {
        uci_section *s = nullptr;
        return code(uci_add_section(ctx_, p_, arg("type"), &s), [&] {
            return fill(R"("name":%,"type":%,"anonymous":%)", {q(s), q(s->type), q(s->anonymous)});
        });
    }

    std::string list_configs() const
    {
        char **names = nullptr;
        return code(uci_list_configs(ctx_, &names), [&] {
            const owner<char> block{reinterpret_cast<char *>(names)};
            std::string all;
            for (char **each = names; *each; ++each)
                all += (all.empty() ? "" : ",") + q(*each);
            return fill(R"("names":[%])", {all});
        });
    }

    std::string perror() const
    {
        const int saved = dup(2);
        dup2(open("/stderr", O_RDWR | O_CREAT | O_TRUNC, 0600), 2);
        uci_perror(ctx_, arg("prefix"));
        dup2(saved, 2);
        return fill(R"("text":%)", {q(read_file("/stderr").c_str())});
    }

    std::string file() const
    {
        const std::string content = read_file(arg("path"));
        return fs::exists(arg("path")) ? fill(R"("content":%,"mode":%)", {q(content.c_str()), permissions(arg("path"))})
                                       : R"("content":null)";
    }

    std::string locked()
    {
        const int fd = open(arg("path"), O_RDONLY | O_CLOEXEC);
        flock(fd, arg("lock") == std::string{"shared"} ? LOCK_SH : LOCK_EX);
        const pid_t pid = fork();
        if (pid == 0) {
            answer(get(op_, "do"));
            _exit(0);
        }
        usleep(250'000);
        const bool waits = waitpid(pid, nullptr, WNOHANG) == 0;
        kill(pid, SIGKILL);
        close(fd);
        return fill(R"("waits":%)", {q(waits)});
    }

    static std::string done(long) { return ""; }

    const std::map<std::string_view, std::function<std::string()>> operations_ = {
        {"alloc",
         [&] {
             return fill(R"(%,"empty":%)", {directories(), q(uci_list_empty(&ctx_->root))});
         }},
        {"free", [&] { return done(static_cast<long>(contexts_.erase("a"))); }},
        {"load", [&] { return load(); }},
        {"unload", [&] { return code(uci_unload(ctx_, p_)); }},
        {"packages", [&] { return fill(R"("names":%)", {array(ctx_->root, name)}); }},
        {"dump", [&] { return fill(R"("package":%)", {package(p_)}); }},
        {"lookup", [&] { return lookup(); }},
        {"next", [&] { return next(); }},
        {"inline", [&] { return inlines(); }},
        {"set", [&] { return change(uci_set, changed); }},
        {"add_list", [&] { return change(uci_add_list, changed); }},
        {"delete", [&] { return change(uci_delete, gone); }},
        {"revert", [&] { return change(uci_revert, reverted); }},
        {"add_section", [&] { return add_section(); }},
        {"save", [&] { return code(uci_save(ctx_, p_)); }},
        {"commit", [&] { return code(uci_commit(ctx_, &p_, flag("overwrite")), [&] { return listed(p_); }); }},
        {"add_delta_path", [&] { return directories(uci_add_delta_path); }},
        {"set_savedir", [&] { return directories(uci_set_savedir); }},
        {"set_confdir", [&] { return directories(uci_set_confdir); }},
        {"list_configs", [&] { return list_configs(); }},
        {"errorstr", [&] { return fill(R"("text":%)", {error_text(arg("prefix"))}); }},
        {"perror", [&] { return perror(); }},
        {"file", [&] { return file(); }},
        {"write", [&] { return write_file(arg("path"), arg("content")), ""; }},
        {"remove", [&] { return done(unlink(arg("path"))); }},
        {"umask", [&] { return done(umask(mode(arg("mode")))); }},
        {"readonly",
         [&] { return done(mount(nullptr, arg("path"), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr)); }},
        {"locked", [&] { return locked(); }},
    };
    std::map<std::string, owner<uci_context>> contexts_;
    json op_ = nullptr;
    uci_context *ctx_ = nullptr;
    uci_package *p_ = nullptr; // the loaded package that the operation names
};

void prepare(json files, json folders)
{
    for (const char *path : {"/etc/config", "/tmp", "/var"})
        mount("tmpfs", path, "tmpfs", 0, "mode=755");
    json_object_object_foreach(files, path, file)
    {
        fs::create_directories(fs::path{path}.parent_path());
        if (get(file, "link"))
            fs::create_symlink(text(file, "link"), path);
        else if (get(file, "mode"))
            write_file(path, text(file, "content"), mode(text(file, "mode")));
        else
            write_file(path, json_object_get_string(file));
    }
    if (!folders)
        return;
    json_object_object_foreach(folders, folder, octal)
    {
        fs::create_directories(folder);
        chmod(folder, mode(json_object_get_string(octal)));
    }
}

/// What is there after a case.
std::string state(json before)
{
    std::string files;
    std::string folders;
    for (const char *root : {"/etc/config", "/tmp", "/var"}) {
        for (const auto &entry : fs::recursive_directory_iterator{root}) {
            const std::string path = entry.path();
            json old = get(before, path.c_str());
            old = json_object_is_type(old, json_type_object) ? get(old, "content") : old;
            const std::string content = entry.is_directory() ? "" : read_file(path);
            const bool same = old && content == json_object_get_string(old);
            if (entry.is_symlink())
                files += fill(R"(%:{"link":%},)", {q(path.c_str()), q(fs::read_symlink(path).c_str())});
            else if (entry.is_directory())
                folders += fill("%:%,", {q(path.c_str()), permissions(path)});
            else
                files += fill(R"(%:{"mode":%,%},)", {q(path.c_str()), permissions(path),
                                                     same ? R"("same":true)" : R"("content":)" + q(content.c_str())});
        }
    }
    return fill(R"("files":{%},"dirs":{%})",
                {files.substr(0, files.rfind(',')), folders.substr(0, folders.rfind(','))});
}

void expect(json want, const std::string &got, const char *what)
{
    const owner<json_object> parsed{json_tokener_parse(("{" + got + "}").c_str())};
    EXPECT_TRUE(json_object_equal(want, parsed.get())) << what << "\n  gave " << got;
}

/// Runs body in a process of its own, which fails the test if a check in it fails.
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
            replay run;
            json ops = get(recorded, "ops");
            for (std::size_t n = 0; n < json_object_array_length(ops); ++n) {
                json op = json_object_array_get_idx(ops, n);
                expect(get(op, "expect"), run.answer(op), json_object_to_json_string(op));
            }
            expect(get(recorded, "after"), state(get(recorded, "files")), "after");
        });
        expect_success(pid, text(recorded, "name"));
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

/// The text of t.s.NAME, by name of the package or by its path, which leaves change files aside; "-" if t is broken.
std::string read_option(const char *option, const char *package_name = "t")
{
    const auto ctx = new_context();
    uci_package *p = nullptr;
    if (uci_load(ctx.get(), package_name, &p) != UCI_OK)
        return "-";
    const char *found = uci_lookup_option_string(ctx.get(), uci_lookup_section(ctx.get(), p, "s"), option);
    return found ? found : "";
}

/// The temporary files in the configuration directory.
std::ptrdiff_t leftovers()
{
    return std::distance(fs::directory_iterator{"/etc/config"}, {}) - fs::exists(file);
}

TEST(libuci, two_processes_commit_at_once)
{
    constexpr int times = 300;
    write_file(file, "config x s\n\toption a 0\n\toption b 0\n");
    const auto writer = [](const std::string &path, bool save) {
        for (int i = 1; i <= times; ++i)
            EXPECT_EQ(commit({path + std::to_string(i)}, save), UCI_OK);
    };
    const pid_t a = start([&] { writer("t.s.a=", true); });
    const pid_t b = start([&] { writer("t.s.b=", false); });
    int last_a = 0;
    int last_b = 0;
    while (last_a < times || last_b < times) {
        const std::string now_a = read_option("a", file);
        const std::string now_b = read_option("b", file);
        ASSERT_TRUE(now_a != "-" && now_b != "-" && std::stoi(now_a) >= last_a && std::stoi(now_b) >= last_b);
        last_a = std::stoi(now_a);
        last_b = std::stoi(now_b);
    }
    expect_success(a, "a");
    expect_success(b, "b");
    EXPECT_EQ(read_option("a", file) + " " + read_option("b", file), "300 300");
    EXPECT_EQ(leftovers(), 0);
}

TEST(libuci, killed_at_any_moment)
{
    write_file(file, "config x s\n\toption a 0\n\toption b 0\n");
    std::mt19937 random{42};
    int killed_inside = 0;
    for (int i = 0; i < 400; ++i) {
        const pid_t pid = start([] {
            for (std::string n = "0";; n = std::to_string(std::stoi(n) + 1))
                commit({"t.s.a=" + n, "t.s.b=" + n});
        });
        usleep(1000 + static_cast<useconds_t>(random() % 3000));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const std::string a = read_option("a", file);
        EXPECT_TRUE(a != "-" && a == read_option("b", file)) << read_file(file);
        EXPECT_EQ(read_option("a"), read_option("b"));
        EXPECT_LE(leftovers(), 1);
        killed_inside += leftovers() != 0;
        if (i % 4 == 0) {
            EXPECT_EQ(commit({"t.s.c=" + std::to_string(i)}), UCI_OK); // nobody's lock is left
            EXPECT_EQ(read_option("c", file), std::to_string(i));
            EXPECT_EQ(leftovers(), 0);
        }
    }
    EXPECT_GT(killed_inside, 0);
}

TEST(libuci, full_disk)
{
    const std::string old = "config x s\n\toption a old\n";
    for (const char *folder : {"/etc/config", "/tmp/.uci"}) {
        fs::create_directories(folder);
        ASSERT_EQ(mount("tmpfs", folder, "tmpfs", 0, "size=64k"), 0);
        const bool package_side = folder == std::string_view{"/etc/config"};
        write_file(file, old, 0640);
        write_file(saved_file, "t.s.b='1'\n");
        write_file(std::string{folder} + "/.filler", std::string(49152, 'x'));
        const std::string value(20'000, 'v');
        EXPECT_EQ(commit({"t.s.a=" + value}), UCI_ERR_IO);
        EXPECT_EQ(read_file(file), old);
        EXPECT_EQ(read_file(saved_file), package_side ? "t.s.b='1'\nt.s.a='" + value + "'\n" : "t.s.b='1'\n");
        fs::remove(std::string{folder} + "/.filler");
        EXPECT_EQ(leftovers(), 0);
        EXPECT_EQ(commit({"t.s.a=" + value}), UCI_OK);
        EXPECT_EQ(read_file(file), "\nconfig x 's'\n\toption a '" + value + "'\n\toption b '1'\n\n");
        EXPECT_EQ(permissions(file) + read_file(saved_file), "\"0640\"");
    }
}

TEST(libuci, nul_bytes)
{
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cases[] = {
        {"# \0\nconfig x s\n\toption a 1\n"s, "1"},
        {"config x s\n\toption a '1\0'\n"s, "-"},
        {"config x s\n\toption a 1\\\0\n"s, "-"},
    };
    for (const auto &[content, text] : cases) {
        write_file(file, content);
        write_file(saved_file, "t.s.a='2\0'\nt.s.b='3'\n"s);
        EXPECT_EQ(read_option("a") + read_option("b"), text == "-" ? "--" : text + "3");
    }
}

/// A daemon's steps from load to commit; stops at the first that fails, which must be for want of memory.
int step_through(uci_context *ctx)
{
    uci_package *p = nullptr;
    uci_section *added = nullptr;
    std::string path = "t.@x[0].b=new";
    uci_ptr ptr{};
    int code = uci_load(ctx, "t", &p);
    code = code ? code : uci_lookup_ptr(ctx, &ptr, path.data(), true);
    for (const char *option : {"a", "list", "a"}) {
        ptr.option = option;
        ptr.o = nullptr;
        code = code ? code : option == std::string{"a"} ? uci_add_list(ctx, &ptr) : uci_set(ctx, &ptr);
    }
    code = code ? code : uci_add_section(ctx, p, "route", &added);
    code = code ? code : uci_save(ctx, p);
    code = code ? code : uci_set_savedir(ctx, "/var/state/a_directory_with_a_long_name");
    code = code ? code : uci_commit(ctx, &p, false);
    code = code ? code : uci_revert(ctx, &(ptr = {}, ptr.p = p, ptr));
    return code;
}

TEST(libuci, memory_runs_out)
{
    const std::string old = "\nconfig x 's'\n\toption a 'an old value that is long'\n\n";
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
        EXPECT_TRUE(read_file(file) == old || read_option("list", file) == "new") << refused << read_file(file);
    }
    EXPECT_GT(refused, 50);
}

TEST(libuci, header_compiles_in_c_and_cpp)
{
    write_file("/program.c", R"(#include <uci.h>
#ifdef __cplusplus
#define COMPLETE uci_ptr::UCI_LOOKUP_COMPLETE
#else
#define COMPLETE UCI_LOOKUP_COMPLETE
#endif
int daemon_step(struct uci_context *ctx, char *path);
int daemon_step(struct uci_context *ctx, char *path)
{
    struct uci_element *e, *next;
    struct uci_ptr ptr = {UCI_TYPE_UNSPEC};
    int empty = 0;
    if (uci_lookup_ptr(ctx, &ptr, path, true) != UCI_OK || !(ptr.flags & COMPLETE))
        return UCI_ERR_NOTFOUND;
    uci_foreach_element(&ptr.p->sections, e) empty += uci_list_empty(&uci_to_section(e)->options);
    uci_foreach_element_safe(&ptr.s->options, next, e)
        if (uci_to_option(e)->type == UCI_TYPE_STRING && uci_lookup_option_string(ctx, ptr.s, e->name))
            ptr.o = uci_to_option(e);
    return empty + uci_to_package(ctx->root.next)->has_delta + list_to_element(ctx->root.prev)->name[0];
})");
    const std::string options = " -Wall -Wextra -Wpedantic -Werror -Wno-missing-field-initializers -fsyntax-only -I" +
                                host_path(SOURCE_DIR) + "/compat/libuci /program.c";
    EXPECT_EQ(std::system(("gcc -std=c11" + options).c_str()), 0);
    EXPECT_EQ(std::system(("g++ -std=c++20 -x c++" + options).c_str()), 0);
}
} // namespace
