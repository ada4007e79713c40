#ifndef HTTP2CLIENT_TOOLS_HELP_H
#define HTTP2CLIENT_TOOLS_HELP_H

// What --help and --version print. The man page is made from both, and the completion is tested
// against the former.
const char* helpText();
const char* versionText();

#endif  // HTTP2CLIENT_TOOLS_HELP_H
