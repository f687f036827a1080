// The server's records: each tool command under its word (native) and
// under "/word" (HTTP, all versions), and the index page on the empty
// path. The records live as long as the process.
#include <string>
#include <vector>

#include "commands.h"

namespace qkd {
namespace {

// One help function per command, since a help function gets no user data.
template <UInt Index>
int Help(Channel *channel) {
    UInt count;
    const ToolCommand *commands = ToolCommands(&count);
    return Index < count && ChannelWriteString(channel, commands[Index].help) ? 1 : 0;
}

constexpr QKServerCommandHelp kHelp[] = {Help<0>, Help<1>, Help<2>, Help<3>};

}  // namespace

QKServerCommand **Commands() {
    static std::vector<QKServerCommand> records;
    static std::vector<std::string> paths;
    static std::vector<QKServerCommand *> list;
    if (!list.empty()) return list.data();
    UInt count;
    const ToolCommand *commands = ToolCommands(&count);
    qkassert(count <= sizeof kHelp / sizeof kHelp[0]);
    paths.reserve(count);
    records.reserve(2 * count + 1);
    for (UInt i = 0; i < count; i++) {
        paths.push_back(std::string("/") + commands[i].word);
        records.push_back(
            {commands[i].word, commands[i].function, kHelp[i], PROTOCOL_NATIVE, NULL});
        records.push_back({paths.back().c_str(), commands[i].function, NULL, PROTOCOL_HTTP, NULL});
    }
    records.push_back({"", IndexPage, NULL, PROTOCOL_HTTP, NULL});
    for (QKServerCommand &record : records) list.push_back(&record);
    list.push_back(NULL);
    return list.data();
}

}  // namespace qkd
