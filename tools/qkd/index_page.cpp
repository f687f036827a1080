// The page on "/": what the server offers, with a form for each of the
// tool's commands. The forms send GET requests such as "/fp?text=hello";
// the empty path takes every target that no other command takes, so any
// other path is answered "Not Found".
#include <string.h>

#include "commands.h"

namespace qkd {
namespace {

// The request's path up to its arguments: "/" for the index page.
bool IsIndexPath(QKClient *client) {
    ByteArray path = {};
    QKClientGetPath(client, &path);
    const char *text = reinterpret_cast<const char *>(path.data);
    bool index = strcmp(text, "/") == 0 || strncmp(text, "/?", 2) == 0;
    ArrayFree(path);
    return index;
}

std::string Page() {
    std::string page =
        "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>qkd</title></head>\n"
        "<body>\n<h1>qkd</h1>\n<p>Server ";
    page += QKVersionString();
    page +=
        ". Every command answers on the native protocol as <code>WORD TEXT</code> and over "
        "HTTP as <code>GET /WORD?text=TEXT</code>.</p>\n";
    UInt count;
    const ToolCommand *commands = ToolCommands(&count);
    for (UInt i = 0; i < count; i++) {
        std::string word = commands[i].word;
        page += "<h2>" + word + "</h2>\n<p>" + commands[i].description + "</p>\n";
        page += "<form action=\"/" + word + "\" method=\"get\"><input name=\"text\" size=\"40\"> ";
        page += "<input type=\"submit\" value=\"" + word + "\"></form>\n";
    }
    page +=
        "<p>Native only: <code>version</code>, <code>pid</code>, <code>help</code>, "
        "<code>auth</code>, <code>exit</code>.</p>\n</body></html>\n";
    return page;
}

}  // namespace

int IndexPage(QKClient *client, void *) {
    if (!IsIndexPath(client)) {
        QKClientSetFormat(client, QK_FORMAT_HTML);
        return QKClientHttpHeader(client, 404, NULL, "Not Found", NULL) ? QK_COMMAND_DONE
                                                                        : QK_COMMAND_DROP;
    }
    return ReplyText(client, Page(), QK_FORMAT_HTML);
}

}  // namespace qkd
