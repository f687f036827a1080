// The builtin native commands of a server, in the order of their table, and
// "help", which lists them after the program's own commands.
#include <string.h>

#include "server/server_internal.h"

namespace qk::server {
namespace {

// The NUL that ends a reply with output.
int EndOutput(QKClient *client) {
    return ClientWrite(client, "", 1) ? QK_COMMAND_DONE : QK_COMMAND_DROP;
}

int BuiltinClose(QKClient *client, void *) {
    if (*QKClientArgs(client) != '\0')
        return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, NULL);
    return QK_COMMAND_DROP;
}

int BuiltinVersion(QKClient *client, void *) {
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    if (!QKClientWriteString(client, QKVersionString()) || !QKClientWriteString(client, "\n"))
        return QK_COMMAND_DROP;
    return EndOutput(client);
}

int BuiltinPid(QKClient *client, void *) {
    UInt pid = (UInt)client->c_server->pid;
    if (QKClientSuccess(client, pid) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    if (!QKClientWriteUInt(client, pid) || !QKClientWriteString(client, "\n"))
        return QK_COMMAND_DROP;
    return EndOutput(client);
}

// "set [-r DELAY] [-w DELAY]": the connection's time-outs in seconds, 0 for
// none, from the next request on.
int BuiltinSet(QKClient *client, void *) {
    Int readTimeout = client->c_readTimeout;
    Int writeTimeout = client->c_writeTimeout;
    const char *option;
    while (QKClientStringArg(client, &option)) {
        bool read = strcmp(option, "-r") == 0;
        UInt seconds;
        if ((!read && strcmp(option, "-w") != 0) || !QKClientIntegerArg(client, &seconds, 0, 0))
            return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, NULL);
        Int value = seconds == 0 ? -1 : (Int)seconds;
        (read ? readTimeout : writeTimeout) = value;
    }
    client->c_readTimeout = readTimeout;
    client->c_writeTimeout = writeTimeout;
    if (QKClientSuccess(client, 0) != QK_COMMAND_DONE) return QK_COMMAND_DROP;
    return EndOutput(client);
}

int BuiltinHelp(QKClient *client, void *);

const Builtin kBuiltins[] = {
    {"abort", "abort # immediately shutdown the server\n", BuiltinAbort},
    {"exit", "exit # cleanly shutdown the server\n", BuiltinExit},
    {"close", "close # close the current connection\n", BuiltinClose},
    {"version", "version # server release and build\n", BuiltinVersion},
    {"set", "set [-r DELAY] [-w DELAY] # set the server-side read/write timeout delay\n",
     BuiltinSet},
    {"rotate",
     "rotate [-d AGE] # rotate the log file, optionally removing archived log files older than "
     "AGE days\n",
     BuiltinRotate},
    {"help", "help [COMMAND]\n", BuiltinHelp},
    {"auth", "auth CHALLENGE # authenticate the connection\n", BuiltinAuth},
    {"pid", "pid # server pid\n", BuiltinPid},
};

// "help COMMAND" gives the command's help; "help" alone, or with a command
// that does not exist, lists all commands.
int BuiltinHelp(QKClient *client, void *) {
    QKServer *server = client->c_server;
    const char *name;
    if (QKClientStringArg(client, &name)) {
        if (CommandEntry *entry = FindNativeByName(server, name)) {
            int status = QKClientSuccess(client, 0);
            if (status == QK_COMMAND_DONE && entry->command->help &&
                !entry->command->help(client->c_channel))
                status = QK_COMMAND_DROP;
            ReleaseEntry(server, entry);
            return status == QK_COMMAND_DONE ? EndOutput(client) : QK_COMMAND_DROP;
        }
        if (const Builtin *builtin = server->builtins ? FindBuiltinByName(name) : nullptr) {
            if (QKClientSuccess(client, 0) != QK_COMMAND_DONE ||
                !QKClientWriteString(client, builtin->help))
                return QK_COMMAND_DROP;
            return EndOutput(client);
        }
    }
    ByteArray text = {nullptr, 0, 0};
    ListNativeCommands(server, &text);
    if (server->builtins) ListBuiltins(&text);
    bool ok = QKClientSuccess(client, 0) == QK_COMMAND_DONE &&
              ClientWrite(client, text.data, text.length);
    ArrayFree(text);
    return ok ? EndOutput(client) : QK_COMMAND_DROP;
}

}  // namespace

const Builtin *FindBuiltin(const char *line) {
    for (const Builtin &builtin : kBuiltins) {
        size_t length = strlen(builtin.name);
        if (strncmp(line, builtin.name, length) == 0 &&
            (line[length] == '\0' || IsBlank(line[length])))
            return &builtin;
    }
    return nullptr;
}

const Builtin *FindBuiltinByName(const char *name) {
    for (const Builtin &builtin : kBuiltins) {
        if (strcmp(name, builtin.name) == 0) return &builtin;
    }
    return nullptr;
}

void ListBuiltins(ByteArray *text) {
    for (const Builtin &builtin : kBuiltins) {
        ArrayAppend(*text, "help ", 5);
        ArrayAppend(*text, builtin.name, strlen(builtin.name));
        ArrayAdd(*text, '\n');
    }
}

int RequireAuthentication(QKClient *client) {
    if (QKAuthGetProcessKey() == nullptr || client->c_authenticated) return -1;
    return QKClientError(client, QK_CLIENT_ILLEGAL_COMMAND, "connection not authenticated");
}

}  // namespace qk::server
