// libuci_replay FILE...: replays recorded calls of libuci against the libuci it is built with, each case in a process
// of its own on an empty device. Tells each case that differs and how many do not; ends with 0 if none does.
#include "device.hpp"

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <json-c/json.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <uci.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using json = json_object *;
constexpr std::array roots = {"/etc/config", "/tmp", "/var"};
constexpr std::array kinds = {"unspec", "delta", "package", "section", "option"}; // of elements
constexpr char answer_file[] = "/answer";

json get(json from, const char *key)
{
    return json_object_object_get(from, key);
}

const char *text_of(json from, const char *key)
{
    return json_object_get_string(get(from, key));
}

std::vector<std::pair<const char *, json>> members(json object)
{
    std::vector<std::pair<const char *, json>> result;
    if (object) {
        json_object_object_foreach(object, key, value) result.emplace_back(key, value);
    }
    return result;
}

std::string plain(json value)
{
    return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN);
}

void check(bool holds, const std::string &difference)
{
    if (!holds)
        throw std::runtime_error{difference};
}

void check_equal(const std::string &what, const std::string &is, const std::string &want)
{
    check(is == want, what + " is " + is + ", not " + want);
}

mode_t mode(const char *octal)
{
    return static_cast<mode_t>(std::stoul(octal, nullptr, 8));
}

// What the library gave, as JSON text.
std::string q(const char *value)
{
    json quoted = value ? json_object_new_string(value) : nullptr;
    std::string text = plain(quoted);
    json_object_put(quoted);
    return text;
}

std::string q(const std::string &value)
{
    return q(value.c_str());
}

std::string q(bool value)
{
    return value ? "true" : "false";
}

template <typename Object> std::string q(const Object *of)
{
    return q(of ? of->e.name : nullptr);
}

template <typename Each> std::string array(uci_list &list, Each &&each)
{
    std::string result = "[";
    uci_element *e = nullptr;
    uci_foreach_element (&list, e) {
        check(e->list.next->prev == &e->list, "a list is torn");
        result.append(result.size() > 1 ? "," : "").append(each(e));
    }
    return result + "]";
}

std::string name(const uci_element *e)
{
    return q(e->name);
}

std::string value(uci_option *o)
{
    if (!o)
        return "null";
    return o->type == UCI_TYPE_LIST ? array(o->v.list, name) : q(o->v.string);
}

std::string kind_and_name(const uci_element *e)
{
    return e ? q(kinds.at(e->type) + (" " + std::string{e->name})) : "null";
}

std::string option(uci_element *e)
{
    check(e->type == UCI_TYPE_OPTION, "an option is none");
    return "[" + name(e) + "," + value(uci_to_option(e)) + "]";
}

std::string section(uci_element *e)
{
    uci_section *s = uci_to_section(e);
    check(e->type == UCI_TYPE_SECTION && uci_lookup_section(s->package->ctx, s->package, e->name) == s,
          "a section is none, or not in its package");
    return R"({"name":)" + name(e) + R"(,"type":)" + q(s->type) + R"(,"anonymous":)" + q(s->anonymous) +
           R"(,"options":)" + array(s->options, option) + "}";
}

std::string package(uci_package *p)
{
    return R"({"name":)" + q(p) + R"(,"sections":)" + array(p->sections, section) + "}";
}

void write_file(const char *path, const char *content, const char *octal = nullptr)
{
    std::ofstream{path, std::ios::binary} << content;
    chmod(path, octal ? mode(octal) : 0644);
}

std::string read_file(const char *path)
{
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

std::string permissions(const char *path)
{
    std::array<char, 8> octal{};
    std::snprintf(octal.data(), octal.size(), "%04o", static_cast<unsigned>(fs::status(path).permissions()));
    return octal.data();
}

/// What body writes to standard error, in a copy of the process, so that asking has no influence.
template <typename Body> std::string answer(Body &&body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(answer_file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
        body();
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    return q(read_file(answer_file));
}

/// Performs the operations of a case and compares what came back.
class player {
public:
    void run(json op)
    {
        op_ = op;
        const char *key = json_object_object_get_ex(op, "ctx", nullptr) ? arg("ctx") : "a";
        if (given("op") == "alloc")
            contexts_[key] = new_context();
        ctx_ = key ? contexts_[key].get() : nullptr;
        p_ = ctx_ && arg("package") ? uci_lookup_package(ctx_, arg("package")) : nullptr;
        ptr_ = {};
        text_.clear();
        operations_.at(given("op"))();
    }

    void expect(json want)
    {
        for (const auto &[key, value] : members(want)) {
            const auto result = results_.find(key);
            const std::string is = result == results_.end() ? text_ : result->second(); // some are the operation's text
            check_equal(std::string{key} + " of " + plain(op_), is, plain(value));
        }
    }

private:
    const char *arg(const char *key) const { return text_of(op_, key); }
    std::string given(const char *key) const { return arg(key) ? arg(key) : ""; }
    bool flag(const char *key) const { return !get(op_, key) || json_object_get_boolean(get(op_, key)); }
    const char *directory() const { return given("dir") == "$savedir" ? ctx_->savedir : arg("dir"); }

    std::string error_text(const char *prefix) const
    {
        return answer([&] {
            char *made = nullptr;
            uci_get_errorstr(ctx_, &made, prefix);
            std::fputs(made, stderr);
        });
    }

    int lookup(uci_ptr &ptr, const std::string &path, bool extended)
    {
        path_ = path;
        return uci_lookup_ptr(ctx_, &ptr, path_.data(), extended);
    }

    static std::shared_ptr<uci_context> new_context()
    {
        uci_context *made = uci_alloc_context();
        check(made != nullptr, "no context");
        return {made, uci_free_context};
    }

    // The real library's own crash without an object or a name.
    uci_section *find_section() const
    {
        return p_ && arg("section") ? uci_lookup_section(ctx_, p_, arg("section")) : nullptr;
    }
    uci_option *find_option() const
    {
        return ptr_.s && arg("option") ? uci_lookup_option(ctx_, ptr_.s, arg("option")) : nullptr;
    }
    const char *find_text() const
    {
        return ptr_.s && arg("option") ? uci_lookup_option_string(ctx_, ptr_.s, arg("option")) : nullptr;
    }

    void look()
    {
        code_ = lookup(ptr_, given("path"), flag("extended"));
        p_ = ptr_.p;
        text_ = "[" + q(ptr_.package) + "," + q(ptr_.section) + "," + q(ptr_.option) + "," + q(ptr_.value) + "]";
    }

    void change(int (*call)(uci_context *, uci_ptr *))
    {
        if (arg("path") && (code_ = lookup(ptr_, given("path"), true)) != UCI_OK) {
            text_ = q("lookup");
            return;
        }
        if (!arg("path")) {
            const std::string how = given("how");
            uci_ptr found{};
            if (how.empty() && arg("section"))
                lookup(found, given("package") + "." + given("section"), true);
            ptr_.s = found.s;
            ptr_.p = how == "strings" ? nullptr : p_;
            ptr_.package = how == "strings" ? arg("package") : nullptr;
            ptr_.section = how.empty() ? nullptr : arg("section");
            ptr_.option = arg("option");
        }
        if (get(op_, "value"))
            ptr_.value = arg("value");
        code_ = call(ctx_, &ptr_);
        p_ = ptr_.p;
    }

    void next()
    {
        uci_section *s = find_section();
        uci_list *children = p_ ? &p_->sections : &ctx_->root;
        uci_element *found = nullptr;
        code_ = uci_lookup_next(ctx_, &found, s ? &s->options : children, arg("name"));
        text_ = kind_and_name(found);
    }

    void list_configs()
    {
        char **names = nullptr;
        code_ = uci_list_configs(ctx_, &names);
        text_ = "[";
        for (char **each = names; each && *each; ++each)
            text_ += q(*each) + (each[1] ? "," : "");
        text_ += "]";
        std::free(names);
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
        {"inline",
         [&] {
             ptr_.s = find_section();
             ptr_.o = find_option();
         }},
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
        {"perror", [&] { text_ = answer([&] { uci_perror(ctx_, arg("prefix")); }); }},
        {"file", [&] { text_ = fs::exists(arg("path")) ? q(read_file(arg("path"))) : "null"; }},
        {"write", [&] { write_file(arg("path"), arg("content")); }},
        {"fill", [&] { write_file(arg("path"), std::string(1 << 20, 'x').c_str()); }},
        {"remove", [&] { fs::remove(arg("path")); }},
        {"umask", [&] { umask(mode(arg("mode"))); }},
        {"readonly", [&] { mount(nullptr, arg("path"), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr); }},
        {"locked", [&] { locked(); }},
    };
    const std::map<std::string_view, std::function<std::string()>> results_ = {
        {"ret", [&] { return std::to_string(code_); }},
        {"error", [&] { return error_text(nullptr); }},
        {"confdir", [&] { return q(ctx_->confdir); }},
        {"savedir", [&] { return q(ctx_->savedir); }},
        {"empty", [&] { return q(uci_list_empty(&ctx_->root)); }},
        {"listed", [&] { return q(uci_lookup_package(ctx_, p_->e.name) == p_); }},
        {"package", [&] { return given("op") == "inline" ? q(p_ != nullptr) : package(p_); }},
        {"section", [&] { return q(ptr_.s); }},
        {"option", [&] { return q(ptr_.o); }},
        {"string", [&] { return q(find_text()); }},
        {"name", [&] { return q(ptr_.s); }},
        {"type", [&] { return q(ptr_.s->type); }},
        {"anonymous", [&] { return q(ptr_.s->anonymous); }},
        {"complete", [&] { return q((ptr_.flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0); }},
        {"flags", [&] { return std::to_string(ptr_.flags); }},
        {"target", [&] { return q(kinds.at(ptr_.target)); }},
        {"p", [&] { return q(p_); }},
        {"s", [&] { return q(ptr_.s); }},
        {"o", [&] { return given("op") == "lookup" ? q(ptr_.o) : value(ptr_.o); }},
        {"value", [&] { return value(ptr_.o); }},
        {"last", [&] { return kind_and_name(ptr_.last); }},
        {"mode", [&] { return q(permissions(arg("path"))); }},
    };
    std::map<std::string, std::shared_ptr<uci_context>> contexts_;
    json op_ = nullptr;
    uci_context *ctx_ = nullptr;
    uci_package *p_ = nullptr; // what the operation was about, or what it gave
    uci_ptr ptr_{};
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
    check(unshare(CLONE_NEWNS) == 0, "no mounts of its own");
    for (const char *root : roots)
        check(mount("tmpfs", root, "tmpfs", 0, "mode=755,size=1m") == 0, std::string{"no empty "} + root);
    for (const auto &[path, file] : members(files)) {
        fs::create_directories(fs::path{path}.parent_path());
        if (get(file, "link"))
            fs::create_symlink(text_of(file, "link"), path);
        else
            write_file(path, content_of(file), text_of(file, "mode"));
    }
    for (const auto &[folder, octal] : members(folders)) {
        fs::create_directories(folder);
        chmod(folder, mode(json_object_get_string(octal)));
    }
}

/// These and no others are there after a case.
void expect_files(json before, json files, json folders)
{
    for (const char *root : roots) {
        for (const fs::path &path : fs::recursive_directory_iterator{root})
            check(get(files, path.c_str()) || get(folders, path.c_str()), path.string() + " is there");
    }
    for (const auto &[folder, octal] : members(folders))
        check_equal(folder, permissions(folder), json_object_get_string(octal));
    for (const auto &[path, file] : members(files)) {
        if (get(file, "link")) {
            check_equal(path, fs::read_symlink(path), text_of(file, "link"));
            continue;
        }
        check_equal(path, permissions(path), text_of(file, "mode"));
        check_equal(path, q(read_file(path)), q(content_of(get(file, "same") ? get(before, path) : file)));
    }
}

/// Gives the exit status of a case's process.
int replay(json recorded)
try {
    prepare(get(recorded, "files"), get(recorded, "dirs"));
    player library;
    json ops = get(recorded, "ops");
    for (std::size_t i = 0; i < json_object_array_length(ops); ++i) {
        library.run(json_object_array_get_idx(ops, i));
        library.expect(get(json_object_array_get_idx(ops, i), "expect"));
    }
    json after = get(recorded, "after");
    expect_files(get(recorded, "files"), get(after, "files"), get(after, "dirs"));
    return 0;
} catch (const std::exception &difference) {
    std::printf("%s: %s\n", text_of(recorded, "name"), difference.what());
    return 1;
}

bool is_as_recorded(json recorded)
{
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0)
        std::exit(replay(recorded));
    int status = -1;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status))
        std::printf("%s: killed by signal %d\n", text_of(recorded, "name"), WTERMSIG(status));
    return status == 0;
}

} // namespace

int main(int argc, char *argv[])
{
    std::vector<std::shared_ptr<json_object>> files;
    std::vector<json> cases;
    for (int i = 1; i < argc; ++i) {
        json file = files.emplace_back(json_object_from_file(argv[i]), json_object_put).get();
        json recorded = get(file, "cases");
        for (std::size_t n = 0; recorded && n < json_object_array_length(recorded); ++n)
            cases.push_back(json_object_array_get_idx(recorded, n));
    }
    if (cases.empty()) {
        std::fputs("usage: libuci_replay FILE... (of recorded cases)\n", stderr);
        return 2;
    }
    enter_device();
    std::size_t alike = 0;
    for (json recorded : cases)
        alike += is_as_recorded(recorded);
    std::printf("%zu of %zu\n", alike, cases.size());
    return alike == cases.size() ? 0 : 1;
}
