/*
 * access_client: asks the access daemon one question over the message bus, or listens for changes of the zone file.
 *
 *     access_client [-n NAME] ip|port|mac|peer COMMON_NAME TARGET       prints yes, no, or "yes, but not now"
 *     access_client [-n NAME] members COMMON_NAME in|out|both           prints a member per line
 *     access_client [-n NAME] listen COUNT                              prints "subscribed", then COUNT notices
 *     access_client [-n NAME] call TYPE DATA                            prints what comes back, from any daemon
 *
 * Exit status: 0 for yes, a list, all notices and a message; 1 for no and "not now"; 2 when there is no answer.
 */
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <event2/event.h>
#include <json-c/json.h>

#include <ipc.h>
#include <logging.h>
#include <util.h>

enum { STATUS_YES = 0, STATUS_NO = 1, STATUS_FAILED = 2, PATIENCE_SECONDS = 5 };

/* Handlers get no argument of the program's own, so what they share stands here. */
static struct {
    struct event_base *base;
    long long notices_left;
    bool calls;
    int status;
} client = {.status = STATUS_FAILED};

static void finish(int status)
{
    client.status = status;
    event_base_loopbreak(client.base);
}

static const char *text_member(struct json_object *object, const char *key)
{
    struct json_object *value = NULL;
    return json_object_object_get_ex(object, key, &value) ? json_object_get_string(value) : NULL;
}

/* A member that may be reached: "port lan1" or "ip 10.1.0.10 to 10.1.0.20". */
static void print_member(struct json_object *member)
{
    const char *type = text_member(member, "type");
    const char *name = text_member(member, "name");
    const char *start = text_member(member, "start");
    const char *end = text_member(member, "end");
    if (type && name)
        printf("%s %s\n", type, name);
    else if (type && start && end)
        printf("%s %s to %s\n", type, start, end);
}

static void handle_reply(int fd, const char *type, struct json_object *reply)
{
    (void)fd, (void)type;
    struct json_object *answer = NULL;
    struct json_object *schedule = NULL;
    json_object_object_get_ex(reply, "answer", &answer);
    json_object_object_get_ex(reply, "schedule", &schedule);
    if (json_object_is_type(answer, json_type_array)) {
        for (size_t i = 0; i < json_object_array_length(answer); ++i)
            print_member(json_object_array_get_idx(answer, i));
        finish(STATUS_YES);
        return;
    }
    const bool allowed = json_object_get_boolean(answer);
    const bool open = json_object_get_boolean(schedule);
    puts(!allowed ? "no" : open ? "yes" : "yes, but not now");
    finish(allowed && open ? STATUS_YES : STATUS_NO);
}

static void handle_error(int fd, const char *type, struct json_object *error)
{
    (void)fd, (void)type;
    const char *text = text_member(error, "text");
    fprintf(stderr, "error: %s\n", text ? text : "the daemon gives no reason");
    finish(STATUS_FAILED);
}

static void handle_subscribed(int fd, const char *type, struct json_object *data)
{
    (void)fd, (void)data;
    puts(type);
    fflush(stdout);
}

static void handle_notice(int fd, const char *type, struct json_object *data)
{
    handle_subscribed(fd, type, data);
    if (--client.notices_left == 0)
        finish(STATUS_YES);
}

static void handle_other(int fd, const char *type, struct json_object *data)
{
    (void)fd;
    if (strcmp(type, "error") == 0) {
        fputs("The daemon has gone\n", stderr);
        finish(STATUS_FAILED);
    } else if (client.calls) { /* else a later daemon has more to say */
        printf("%s %s\n", type, json_object_to_json_string_ext(data, JSON_C_TO_STRING_PLAIN));
        finish(STATUS_YES);
    }
}

/* Adds a member to an object and takes the value; both may be NULL for want of memory, which gives false. */
static bool add(struct json_object *object, const char *key, struct json_object *value)
{
    if (object && value && json_object_object_add(object, key, value) == 0)
        return true;
    json_object_put(value);
    return false;
}

/* What the daemon is to look at; NULL when the command line asks for nothing known, or for want of memory. */
static struct json_object *data_for(char *argv[])
{
    if (strcmp(argv[0], "call") == 0)
        return json_tokener_parse(argv[2]);
    const char *target = strcmp(argv[0], "members") == 0 ? "direction" : argv[0];
    struct json_object *data = json_object_new_object();
    bool complete = add(data, "common_name", json_object_new_string(argv[1]));
    complete = add(data, target, json_object_new_string(argv[2])) && complete;
    if (complete)
        return data;
    json_object_put(data);
    return NULL;
}

/* What the command line asks for, as a new message; NULL when it asks for nothing known, or for want of memory. */
static struct json_object *message_for(int argc, char *argv[])
{
    const bool listens = argc == 2 && strcmp(argv[0], "listen") == 0;
    const char *wrong = NULL;
    if (listens)
        client.notices_left = strtonum(argv[1], 1, 1000000, &wrong);
    if (wrong || (!listens && argc != 3))
        return NULL;

    client.calls = strcmp(argv[0], "call") == 0;
    char question[32];
    snprintf(question, sizeof question, "access.%s", argv[0]);
    const char *type = listens ? "subscribe" : client.calls ? argv[1] : question;
    struct json_object *message = json_object_new_object();
    bool complete = add(message, "type", json_object_new_string(type));
    complete = add(message, "data", listens ? json_object_new_string("zones.changed") : data_for(argv)) && complete;
    if (complete)
        return message;
    json_object_put(message);
    return NULL;
}

/* Sends the message and waits for what comes back. */
static void converse(const char *name, struct json_object *message)
{
    const struct timeval patience = {.tv_sec = PATIENCE_SECONDS};
    const int fd = ipc_client_new(name, client.base, handle_other);
    if (fd < 0 || ipc_write(fd, message) != 0) {
        fprintf(stderr, "No daemon named %s answers\n", name);
        ipc_close(fd);
        return;
    }
    ipc_register_callback("access.reply", handle_reply);
    ipc_register_callback("access.error", handle_error);
    ipc_register_callback("subscribed", handle_subscribed);
    ipc_register_callback("zones.changed", handle_notice);
    if (client.notices_left == 0)
        event_base_loopexit(client.base, &patience);
    if (event_base_dispatch(client.base) != 0 || !event_base_got_break(client.base))
        fputs("No answer\n", stderr);
    ipc_close(fd);
}

int main(int argc, char *argv[])
{
    const char *name = "access";
    for (int option; (option = getopt(argc, argv, "n:")) != -1;) {
        if (option != 'n')
            return STATUS_FAILED;
        name = optarg;
    }
    struct json_object *message = message_for(argc - optind, argv + optind);
    if (!message) {
        fprintf(stderr,
                "usage: %s [-n NAME] ip|port|mac|peer|members COMMON_NAME TARGET | listen COUNT | call TYPE DATA\n",
                argv[0]);
        return STATUS_FAILED;
    }
    client.base = event_base_new();
    if (client.base && logging_init("access_client", 0)) {
        converse(name, message);
        vd_logging_close(&libvandrel_logcontext);
    } else {
        perror(argv[0]);
    }
    json_object_put(message);
    if (client.base)
        event_base_free(client.base);
    return client.status;
}
