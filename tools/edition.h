#ifndef HTTP2CLIENT_TOOLS_EDITION_H
#define HTTP2CLIENT_TOOLS_EDITION_H

#include <optional>
#include <string>

#include "Http2Client/HttpClientInterface.h"
#include "options.h"
#include "request.h"

// What the two editions of the library differ in, as far as this program is concerned. One of
// edition_exact.cpp and edition_standard.cpp is linked, with the library that it is about.
namespace edition {

extern const bool kIsStandard;

// With --standard as the first argument the exact edition's program becomes the other one.
// Returns nothing when the program goes on, and its exit code when it ends here, after a message.
std::optional<int> handOver(int argc, char** argv);

// Sets what is to hold for the client's connection. Before it connects.
void configure(tiny::HttpClientInterface& client, const Options& options);

// Sets a method that setUri has no name for. False: it cannot be sent.
bool setMethod(tiny::HttpClientInterface& client, const std::string& method);

// Why the client's last call or request failed, for the user; empty: the library does not tell.
std::string lastError(tiny::HttpClientInterface& client);

// Whether the client's last connect joined a connection that was there already.
bool joinedConnection(tiny::HttpClientInterface& client);

// What connecting consisted of; nothing: the library does not tell.
std::optional<ConnectTimes> connectTimes(tiny::HttpClientInterface& client);

// What to say of a connection that could not be made. `error`: lastError() after that.
Outcome failToConnect(const Options& options, const std::string& error);

// May improve the message of a request to which nothing has come.
void explainFailure(const Options& options, Outcome& outcome);

}  // namespace edition

#endif  // HTTP2CLIENT_TOOLS_EDITION_H
