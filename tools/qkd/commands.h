// The commands of qkd: each is one function for both protocols, registered
// twice, under its word for the native protocol and under "/word" for HTTP;
// the empty HTTP path serves the index page.
#pragma once

#include <string>

#include "qk/qkcommon.h"

namespace qkd {

// A command of the tool, as the registry and the index page see it.
struct ToolCommand {
    const char *word;
    QKServerCommandFunction function;
    const char *help;         // the native one-line help, LF included
    const char *description;  // a sentence for the index page
};

// The tool's commands; *count gets their number.
const ToolCommand *ToolCommands(UInt *count);

// The records to give QKServerNew: a list ended by none, alive for the
// whole process.
QKServerCommand **Commands();

// The index page on "/", and "Not Found" for any other path that no
// command takes.
int IndexPage(QKClient *client, void *userData);

// Replies with text: on the native protocol a success line, the text and
// its NUL; on HTTP a 200 head with the length and the content type of
// `format` in UTF-8, and the text as the body. A command status.
int ReplyText(QKClient *client, const std::string &text, UInt format);

// The TEXT argument of a command: on the native protocol the rest of the
// line; on HTTP the value of "text", or else an argument given without a
// value ("/fp/hello", "/fp?hello"), or empty. False after an error reply,
// whose status is in *status.
bool TextArgument(QKClient *client, std::string *text, int *status);

}  // namespace qkd
