#ifndef HTTP2CLIENT_TOOLS_JSON_H
#define HTTP2CLIENT_TOOLS_JSON_H

#include <cstdint>
#include <string>

#include "options.h"
#include "request.h"

// One request and its answer as a JSON object on one line, with the line's end:
//
//   request   its number, from 1
//   status    of the answer; null when none has come
//   headers   of the answer, by name; of a repeated name an array of values. A value that is not
//             UTF-8 is taken for ISO 8859-1.
//   body_size bytes of the body that have come
//   body      the body, when it is UTF-8; else
//   body_base64  the same in base64 (RFC 4648, 4); or, with -o,
//   body_file    where it is
//   timing    connect_ms (TLS included; null on a connection in use), first_byte_ms, total_ms,
//             bytes_per_second; in the standard edition name_ms, tcp_ms, tls_ms and reused
//   error     null for an answer, whatever its status; else kind, exit_code and message
std::string jsonLine(uint64_t number, const Outcome& outcome, const std::string& body,
                     const Options& options);

std::string base64(const std::string& bytes);

#endif  // HTTP2CLIENT_TOOLS_JSON_H
