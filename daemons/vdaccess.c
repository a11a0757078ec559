/*
 * vdaccess: the access daemon, which answers over the message bus who may reach what.
 *
 *     vdaccess [-f] [-u USER] [-n NAME] [-i SECONDS] [-e]
 *
 *     -f  stays in the foreground, where a supervisor can watch it
 *     -u  gives up root and runs as this user, in the group of the same name
 *     -n  its name on the bus, "access" unless given
 *     -i  seconds between two looks at the zone file and the schedules, 60 unless given
 *     -e  records also go to standard error
 *
 * A question is a message of the type access.ip, access.port, access.mac, access.peer or access.members. Its data names
 * the peer that asks, "common_name", and its target: "ip", "port", "mac", "peer", or for access.members the "direction"
 * ("out": what the peer may reach, "in": what may reach it, "both"). The reply, of the type access.reply, carries
 *
 *     "type", "question"  the question's type and data
 *     "answer"            true or false; for access.members a list of members
 *     "schedule"          whether a zone that says yes is open now; not for access.members
 *
 * so a peer gets through only where "answer" and "schedule" are both true. What cannot be answered gets access.error,
 * which carries "type", "question" and a "text" that says why; without "question" where a message can't hold it.
 * The "type" is the text that a handler gets: a/b comes back as a\/b.
 *
 * "subscribe" and "unsubscribe" take the name of a type as data and answer with a message of the type subscribed or
 * unsubscribed and the same data. There is one to subscribe to: zones.changed, sent when the zone file has changed, and
 * when it can no longer be read or can be again.
 */
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <event2/event.h>
#include <json-c/json.h>

#include <daemon_tools.h>
#include <ip_calculation.h>
#include <ipc.h>
#include <logging.h>
#include <mac.h>
#include <util.h>
#include <zones.h>

#define LOG_ERROR(...) vd_logging_log(libvandrel_logcontext, LOG_ERR, "vdaccess.c", __LINE__, -1, __VA_ARGS__)

enum {
    LONGEST_MESSAGE = 999994, /* characters of JSON text */
    EVENT_COUNT = 3
};

static const char zone_file[] = "/etc/vandrel/zones.json";
static const char zones_changed[] = "zones.changed";

struct options {
    const char *name; /* on the bus */
    const char *user; /* NULL stays who it is */
    bool foreground;
    int look_interval; /* seconds between two looks at the zone file and the schedules */
    int echo;
};

/* What a question came to: an error text, or else a value, and where there is one the schedule (else -1). */
struct answer {
    const char *error;
    struct json_object *value;
    int schedule;
};

/* Adds a member to an object and takes the value; both may be NULL for want of memory, which gives false. */
static bool add(struct json_object *object, const char *key, struct json_object *value)
{
    if (object && value && json_object_object_add(object, key, value) == 0)
        return true;
    json_object_put(value);
    return false;
}

/* Makes a message and takes its data; NULL for want of memory. */
static struct json_object *new_message(const char *type, struct json_object *data)
{
    struct json_object *message = json_object_new_object();
    const bool has_data = add(message, "data", data);
    if (has_data && add(message, "type", json_object_new_string(type)))
        return message;
    LOG_ERROR("No memory for a message of the type %s", type);
    json_object_put(message);
    return NULL;
}

/* Whether ipc_write refuses the message for its length, rather than for a peer that has gone or doesn't read. */
static bool is_too_long(struct json_object *message)
{
    const char *text = json_object_to_json_string(message);
    return text && strlen(text) > LONGEST_MESSAGE;
}

static struct answer no_answer(const char *why)
{
    return (struct answer){.error = why, .schedule = -1};
}

/* Sends what a question came to, and takes its value. Type and question may be NULL. */
static void send_answer(int fd, const char *type, struct json_object *question, struct answer answer)
{
    struct json_object *data = json_object_new_object();
    bool complete =
        answer.error ? add(data, "text", json_object_new_string(answer.error)) : add(data, "answer", answer.value);
    if (type)
        complete = add(data, "type", json_object_new_string(type)) && complete;
    if (question)
        complete = add(data, "question", json_object_get(question)) && complete;
    if (answer.schedule >= 0)
        complete = add(data, "schedule", json_object_new_boolean(answer.schedule)) && complete;
    if (!complete) {
        LOG_ERROR("No memory for the answer to %s", type ? type : "a question");
        json_object_put(data);
        return;
    }
    struct json_object *message = new_message(answer.error ? "access.error" : "access.reply", data);
    const bool failed = message && ipc_write(fd, message) != 0;
    const bool too_long = failed && is_too_long(message);
    json_object_put(message);
    if (too_long && (question || type)) /* the asker waits */
        send_answer(fd, question ? type : NULL, NULL, no_answer("question and answer are too long for a message"));
    else if (failed)
        LOG_ERROR("The answer to %s is lost", type ? type : "a question");
}

static struct answer yes_or_no(int allowed, uint8_t schedule)
{
    return (struct answer){.value = json_object_new_boolean(allowed), .schedule = schedule};
}

/* A text, borrowed from value; NULL when it is none. A NUL inside would make another text of it. */
static const char *text_of(struct json_object *value)
{
    if (!json_object_is_type(value, json_type_string))
        return NULL;
    const char *text = json_object_get_string(value);
    return text && strlen(text) == (size_t)json_object_get_string_len(value) ? text : NULL;
}

static const char *text_member(struct json_object *object, const char *key)
{
    struct json_object *value = NULL;
    json_object_object_get_ex(object, key, &value);
    return text_of(value);
}

static struct answer ask_ip(const char *peer, struct json_object *question)
{
    uint32_t ip = 0;
    uint8_t schedule = 0;
    if (!ip_parse_p(&ip, text_member(question, "ip")))
        return no_answer("\"ip\" is no address");
    const int allowed = zones_is_ip_allowed_sched(peer, ip, &schedule);
    return yes_or_no(allowed, schedule);
}

static struct answer ask_port(const char *peer, struct json_object *question)
{
    const char *port = text_member(question, "port");
    uint8_t schedule = 0;
    if (!port)
        return no_answer("\"port\" is no text");
    const int allowed = zones_is_port_allowed_sched(peer, port, &schedule);
    return yes_or_no(allowed, schedule);
}

static struct answer ask_mac(const char *peer, struct json_object *question)
{
    const char *text = text_member(question, "mac");
    uint8_t mac[6];
    uint8_t schedule = 0;
    if (!text || !mac_to_bytes_network(mac, text))
        return no_answer("\"mac\" is no address");
    const int allowed = zones_is_mac_allowed_sched(peer, mac, &schedule);
    return yes_or_no(allowed, schedule);
}

static struct answer ask_peer(const char *peer, struct json_object *question)
{
    const char *other = text_member(question, "peer");
    uint8_t schedule = 0;
    if (!other)
        return no_answer("\"peer\" is no text");
    const int allowed = zones_is_device_allowed_sched(peer, other, &schedule);
    return yes_or_no(allowed, schedule);
}

static bool add_ip_range(struct json_object *object, const zone_member *range)
{
    char start[16];
    char end[16];
    ip_format(start, range->start.ip);
    ip_format(end, range->end.ip);
    return add(object, "start", json_object_new_string(start)) && add(object, "end", json_object_new_string(end));
}

static bool add_mac(struct json_object *object, const char *key, uint64_t mac)
{
    uint8_t bytes[6];
    char text[18];
    for (int i = 0; i < 6; ++i)
        bytes[i] = (uint8_t)(mac >> (40 - 8 * i));
    mac_bytes_to_mac(text, bytes);
    return add(object, key, json_object_new_string(text));
}

/* Adds what a member is to an object, as {"type": "port", "name": ...} or {"type": "ip", "start": ..., "end": ...}. */
static bool describe(struct json_object *object, const zone_member *member)
{
    static const char *const types[] = {"peer", "port", "ip", "ip", "mac"}; /* by zone_member_type */
    zone_member range = *member;
    if (!add(object, "type", json_object_new_string(types[member->type])))
        return false;
    switch (member->type) {
    case ZONE_MEMBER_IP_NETWORK:
        return zones_ip_netmask_to_range(&range, member) && add_ip_range(object, &range);
    case ZONE_MEMBER_IP_RANGE:
        return add_ip_range(object, &range);
    case ZONE_MEMBER_MAC_RANGE:
        return add_mac(object, "start", member->start.mac) && add_mac(object, "end", member->end.mac);
    default:
        return add(object, "name", json_object_new_string(member->start.name));
    }
}

/* The list of count members as JSON; NULL for want of memory. */
static struct json_object *describe_all(zone_member *const *members, uint32_t count)
{
    struct json_object *list = json_object_new_array();
    for (uint32_t i = 0; list && i < count; ++i) {
        struct json_object *object = json_object_new_object();
        if (!object || !describe(object, members[i]) || json_object_array_add(list, object) != 0) {
            json_object_put(object);
            json_object_put(list);
            return NULL;
        }
    }
    return list;
}

static struct answer ask_members(const char *peer, struct json_object *question)
{
    static const char *const directions[] = {"in", "out", "both"}; /* by zone_direction */
    const char *wanted = text_member(question, "direction");
    int direction = 0;
    while (direction < 3 && safestrcmp(directions[direction], wanted) != 0)
        ++direction;
    zone_member **members = NULL;
    uint32_t count = 0;
    if (direction == 3)
        return no_answer("\"direction\" is not in, out or both");
    if (!zones_get_allowed_members(&members, &count, peer, direction))
        return no_answer("the zones cannot be read");
    struct json_object *list = describe_all(members, count);
    free(members);
    return (struct answer){.value = list, .schedule = -1};
}

/* What the last look at the zone file has found: its time, and whether the schedules were asked for what is in it. */
static struct {
    time_t modified;
    bool in_force;
} zones = {.modified = -2}; /* no file's time, nor that of a missing one */

/* Whether there is a model, after an attempt to load it. Without one a query leaves the schedule alone. */
static bool model_is_loaded(void)
{
    uint8_t schedule = 2;
    zones_is_port_allowed_sched("", "", &schedule);
    return schedule != 2;
}

static bool zones_are_current(void)
{
    return zones.in_force && file_get_mtime(zone_file) == zones.modified;
}

/* Brings the schedules up to date. A model that is loaded anew has every schedule open until the script was asked, so
 * that must not happen unseen: neither when loading failed before and now succeeds, nor when the file changes while the
 * script runs, nor with a file of the time 0 (written before the clock was set), which every query loads anew. */
static void look_at_zones(void)
{
    const time_t modified = file_get_mtime(zone_file);
    const bool loaded = model_is_loaded();
    if (loaded)
        zones_update_schedule_access(); /* its result is an answer, not a failure */
    const bool in_force = loaded && modified > 0 && file_get_mtime(zone_file) == modified;
    const bool changed = modified != zones.modified || in_force != zones.in_force;
    zones.modified = modified;
    zones.in_force = in_force;
    struct json_object *message = changed ? new_message(zones_changed, json_object_new_object()) : NULL;
    if (message)
        ipc_server_write_to_subscribers(zones_changed, message);
    json_object_put(message);
}

typedef struct answer (*ask_function)(const char *peer, struct json_object *question);

/* The answer from zones that were in force throughout. The second attempt is for a file that changes meanwhile, and for
 * one with a zone that lacks "members", where only the first query fails. */
static struct answer ask_current_zones(ask_function ask, const char *peer, struct json_object *question)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!zones_are_current())
            look_at_zones();
        if (!zones.in_force)
            continue;
        const struct answer answer = ask(peer, question);
        if (zones_are_current())
            return answer;
        json_object_put(answer.value);
    }
    return no_answer("the zones cannot be read");
}

static const struct {
    const char *type;
    ask_function ask;
} questions[] = {{"access.ip", ask_ip},
                 {"access.port", ask_port},
                 {"access.mac", ask_mac},
                 {"access.peer", ask_peer},
                 {"access.members", ask_members}};
static const size_t question_count = sizeof questions / sizeof questions[0];

static void handle_question(int fd, const char *type, struct json_object *question)
{
    const char *peer = text_member(question, "common_name");
    struct answer answer = no_answer("\"common_name\" is no text");
    for (size_t i = 0; peer && i < question_count; ++i) {
        if (strcmp(questions[i].type, type) == 0)
            answer = ask_current_zones(questions[i].ask, peer, question);
    }
    send_answer(fd, type, question, answer);
}

static void handle_subscription(int fd, const char *type, struct json_object *data)
{
    const bool subscribes = strcmp(type, "subscribe") == 0;
    if (safestrcmp(text_of(data), zones_changed) != 0) {
        send_answer(fd, type, data, no_answer("there is only zones.changed to subscribe to"));
        return;
    }
    if (!subscribes) {
        ipc_server_remove_subscriber_typed(zones_changed, fd);
    } else if (ipc_server_add_subscriber(zones_changed, fd) != 0) {
        send_answer(fd, type, data, no_answer("there are too many subscribers"));
        return;
    }
    struct json_object *message = new_message(subscribes ? "subscribed" : "unsubscribed", json_object_get(data));
    if (message)
        ipc_write(fd, message);
    json_object_put(message);
}

/* Everything else, and the end of a connection. Its descriptor's next owner must not inherit the subscriptions. */
static void handle_other(int fd, const char *type, struct json_object *data)
{
    if (strcmp(type, "error") == 0)
        ipc_server_remove_subscriber(fd);
    else
        send_answer(fd, type, data, no_answer("there is no such question"));
}

static void on_timer(evutil_socket_t fd, short events, void *argument)
{
    (void)fd, (void)events, (void)argument;
    look_at_zones();
}

static void on_signal(evutil_socket_t number, short events, void *base)
{
    (void)number, (void)events;
    event_base_loopbreak(base);
}

static void register_handlers(void)
{
    for (size_t i = 0; i < question_count; ++i)
        ipc_register_callback(questions[i].type, handle_question);
    ipc_register_callback("subscribe", handle_subscription);
    ipc_register_callback("unsubscribe", handle_subscription);
}

/* A timer that looks at the zones, and the signals that end the loop. Each event made is the caller's, on failure too.
 */
static bool add_events(struct event_base *base, int look_interval, struct event *events[EVENT_COUNT])
{
    const struct timeval interval = {.tv_sec = look_interval};
    struct event *timer = events[0] = event_new(base, -1, EV_PERSIST, on_timer, NULL);
    struct event *terminate = events[1] = evsignal_new(base, SIGTERM, on_signal, base);
    struct event *interrupt = events[2] = evsignal_new(base, SIGINT, on_signal, base);
    return timer && terminate && interrupt && event_add(timer, &interval) == 0 && event_add(terminate, NULL) == 0 &&
           event_add(interrupt, NULL) == 0;
}

/* Serves until a signal ends it. */
static bool run_loop(struct event_base *base, int look_interval)
{
    struct event *events[EVENT_COUNT];
    bool ended_well = add_events(base, look_interval, events);
    if (ended_well) {
        look_at_zones();
        ended_well = event_base_dispatch(base) == 0;
    }
    if (!ended_well)
        LOG_ERROR("The event loop failed");
    for (size_t i = 0; i < EVENT_COUNT; ++i) {
        if (events[i])
            event_free(events[i]);
    }
    return ended_well;
}

static bool run_server(struct event_base *base, const struct options *options)
{
    const int server = ipc_server_new(options->name, base, handle_other); /* logs why it failed */
    if (server < 0)
        return false;
    register_handlers();
    const bool ended_well = run_loop(base, options->look_interval);
    ipc_close(server);
    return ended_well;
}

/* Goes to the background, and gives up root for a user and the group of the same name. The capability that is left
 * gives the socket to the group "vdipc", which the user need not be in. */
static bool become_daemon(const char *user)
{
    static const cap_value_t capabilities[] = {CAP_CHOWN};
    const daemonize_options wanted = {
        .user = user, .group = user, .umask = 027, .capabilities = user ? capabilities : NULL, .capability_count = 1};
    return vd_daemonize(&wanted) == 0; /* logs why it failed */
}

/* The same in the foreground. No capability is left, so here the user has to be in "vdipc". */
static bool become_user(const char *user)
{
    umask(027);
    return vd_set_process_uid_and_gid_by_names(user, user, false) == 0; /* logs why it failed */
}

static bool read_options(int argc, char *argv[], struct options *options)
{
    const char *wrong = NULL;
    for (int option; (option = getopt(argc, argv, "fu:n:i:e")) != -1;) {
        if (option == 'f')
            options->foreground = true;
        else if (option == 'n')
            options->name = optarg;
        else if (option == 'i')
            options->look_interval = (int)strtonum(optarg, 1, 86400, &wrong);
        else if (option == 'u')
            options->user = optarg;
        else if (option == 'e')
            options->echo = 1;
        else
            wrong = "unknown";
        if (wrong) {
            fprintf(stderr, "usage: %s [-f] [-u USER] [-n NAME] [-i SECONDS] [-e]\n", argv[0]);
            return false;
        }
    }
    return true;
}

int main(int argc, char *argv[])
{
    struct options options = {.name = "access", .look_interval = 60};
    if (!read_options(argc, argv, &options))
        return EXIT_FAILURE;
    if (!logging_init("vdaccess", options.echo)) {
        perror(argv[0]);
        return EXIT_FAILURE;
    }
    /* before anything else is opened */
    const bool ready = options.foreground ? become_user(options.user) : become_daemon(options.user);
    struct event_base *base = ready ? event_base_new() : NULL;
    if (ready && !base)
        LOG_ERROR("Making the event base failed");
    const bool ended_well = base && run_server(base, &options);
    zones_free();
    if (base)
        event_base_free(base);
    vd_logging_close(&libvandrel_logcontext);
    return ended_well ? EXIT_SUCCESS : EXIT_FAILURE;
}
