// The command tables of a server: native commands in order of registration,
// HTTP commands sorted by name length, longest first, so that a lookup is
// one pass that finds the most specific path. `commandLock` is held only
// while searching or changing a table; a request keeps the entry it found by
// raising its c_active, and a call that replaces or deletes an entry waits on
// `condition` until that count falls to 0.
#include <string.h>

#include "qk/memory.h"
#include "server/server_internal.h"

namespace qk::server {
namespace {

bool IsNative(UInt protocols) {
    return protocols == PROTOCOL_NATIVE;
}

bool IsValid(const QKServerCommand *record) {
    if (record == nullptr || record->name == nullptr || record->function == nullptr) return false;
    if (IsNative(record->protocols)) return record->name[0] != '\0' && record->name[0] != ' ';
    return record->name[0] == '\0' || record->name[0] == '/';
}

CommandArray &TableOf(QKServer *server, UInt protocols) {
    return IsNative(protocols) ? server->s_native : server->s_http;
}

// The index of the entry named `name` in `table`, or -1.
Int IndexOf(const CommandArray &table, const char *name) {
    for (UInt i = 0; i < table.length; i++) {
        if (strcmp(table.data[i]->command->name, name) == 0) return (Int)i;
    }
    return -1;
}

void RemoveAt(CommandArray &table, UInt index) {
    memmove(table.data + index, table.data + index + 1,
            (table.length - index - 1) * sizeof(CommandEntry *));
    table.length--;
}

void InsertAt(CommandArray &table, UInt index, CommandEntry *entry) {
    ArrayEnsure(table, table.length + 1);
    memmove(table.data + index + 1, table.data + index,
            (table.length - index) * sizeof(CommandEntry *));
    table.data[index] = entry;
    table.length++;
}

// Files a new entry: native commands at the end, HTTP commands behind all
// names at least as long.
void Insert(QKServer *server, CommandEntry *entry) {
    CommandArray &table = TableOf(server, entry->command->protocols);
    UInt index = table.length;
    if (!IsNative(entry->command->protocols)) {
        index = 0;
        while (index < table.length && table.data[index]->nameLength >= entry->nameLength) index++;
    }
    InsertAt(table, index, entry);
}

CommandEntry *NewEntry(QKServerCommand *record) {
    CommandEntry *entry = AllocateZero(CommandEntry);
    entry->command = record;
    entry->nameLength = (UInt)strlen(record->name);
    return entry;
}

// Marks a removed entry deleted, waits until no request is in it, frees it
// and gives its record. Under commandLock, which the wait releases.
QKServerCommand *Retire(QKServer *server, CommandEntry *entry) {
    entry->deleted = 1;
    while (entry->c_active > 0) ConditionWait(&server->condition, &server->commandLock);
    QKServerCommand *record = entry->command;
    UnAllocate(entry);
    return record;
}

}  // namespace

CommandEntry *FindNative(QKServer *server, const char *line) {
    CommandEntry *found = nullptr;
    MutexLock(&server->commandLock);
    for (UInt i = 0; i < server->s_native.length; i++) {
        CommandEntry *entry = server->s_native.data[i];
        char next = line[entry->nameLength];
        if ((next == '\0' || IsBlank(next)) &&
            memcmp(line, entry->command->name, entry->nameLength) == 0) {
            found = entry;
            found->c_active++;
            break;
        }
    }
    MutexUnlock(&server->commandLock);
    return found;
}

CommandEntry *FindHttp(QKServer *server, const char *target) {
    CommandEntry *found = nullptr;
    size_t length = strlen(target);
    MutexLock(&server->commandLock);
    for (UInt i = 0; i < server->s_http.length; i++) {
        CommandEntry *entry = server->s_http.data[i];
        if (entry->nameLength > length) continue;
        char next = target[entry->nameLength];
        if ((next == '\0' || next == '?' || next == '/') &&
            memcmp(target, entry->command->name, entry->nameLength) == 0) {
            found = entry;
            found->c_active++;
            break;
        }
    }
    MutexUnlock(&server->commandLock);
    return found;
}

CommandEntry *FindNativeByName(QKServer *server, const char *name) {
    MutexLock(&server->commandLock);
    Int index = IndexOf(server->s_native, name);
    CommandEntry *found = index >= 0 ? server->s_native.data[index] : nullptr;
    if (found) found->c_active++;
    MutexUnlock(&server->commandLock);
    return found;
}

void ReleaseEntry(QKServer *server, CommandEntry *cmd) {
    MutexLock(&server->commandLock);
    qkassert(cmd->c_active > 0);
    if (--cmd->c_active == 0 && cmd->deleted) ConditionBroadcast(&server->condition);
    MutexUnlock(&server->commandLock);
}

void ListNativeCommands(QKServer *server, ByteArray *text) {
    MutexLock(&server->commandLock);
    for (UInt i = 0; i < server->s_native.length; i++) {
        const CommandEntry *entry = server->s_native.data[i];
        ArrayAppend(*text, "help ", 5);
        ArrayAppend(*text, entry->command->name, entry->nameLength);
        ArrayAdd(*text, '\n');
    }
    MutexUnlock(&server->commandLock);
}

// Registers a record for QKServerNew: an invalid record or a name used
// twice is an error.
bool RegisterNew(QKServer *server, QKServerCommand *record) {
    if (!IsValid(record)) {
        QKErrorThrow(0, 2, "invalid server command: \"%s\"",
                     record && record->name ? record->name : "");
        return false;
    }
    if (IndexOf(TableOf(server, record->protocols), record->name) >= 0) {
        QKErrorThrow(0, 2, "duplicate server command: \"%s\"", record->name);
        return false;
    }
    Insert(server, NewEntry(record));
    return true;
}

// Takes every entry out and frees it; for a server that serves nothing.
void UnregisterAll(QKServer *server) {
    for (CommandArray *table : {&server->s_native, &server->s_http}) {
        while (table->length > 0) {
            UnAllocate(table->data[table->length - 1]);
            table->length--;
        }
    }
}

}  // namespace qk::server

using namespace qk::server;

extern "C" {

QK_API int QKServerCommandAdd(QKServer *server, QKServerCommand *record, QKServerCommand **old) {
    if (old) *old = nullptr;
    if (!IsValid(record)) {
        QKErrorThrow(0, 2, "invalid server command: \"%s\"",
                     record && record->name ? record->name : "");
        return 0;
    }
    CommandEntry *entry = NewEntry(record);
    MutexLock(&server->commandLock);
    CommandArray &table = TableOf(server, record->protocols);
    Int index = IndexOf(table, record->name);
    CommandEntry *previous = nullptr;
    if (index >= 0) {
        previous = table.data[index];
        RemoveAt(table, (UInt)index);
    }
    if (previous && IsNative(record->protocols)) {
        InsertAt(table, (UInt)index, entry);  // a replacement keeps its place
    } else {
        Insert(server, entry);
    }
    QKServerCommand *replaced = previous ? Retire(server, previous) : nullptr;
    MutexUnlock(&server->commandLock);
    if (old) *old = replaced;
    return 1;
}

QK_API QKServerCommand *QKServerCommandDelete(QKServer *server, const char *name, UInt protocols) {
    MutexLock(&server->commandLock);
    CommandArray &table = TableOf(server, protocols);
    Int index = IndexOf(table, name);
    QKServerCommand *record = nullptr;
    if (index >= 0) {
        CommandEntry *entry = table.data[index];
        RemoveAt(table, (UInt)index);
        record = Retire(server, entry);
    }
    MutexUnlock(&server->commandLock);
    return record;
}

}  // extern "C"
