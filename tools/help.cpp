#include "help.h"

#include "edition.h"

namespace {

// With the next prompt each fits a screen of 40 lines, 80 columns wide.
constexpr const char* kExactHelp =
    R"(Usage: h2request [options] IP PORT PATH | http[s]://IP[:PORT][/PATH]
Makes HTTP/2 requests to a server (IP: an IPv4 address), prints the answers.

Request:
  --standard           first of all: the standard edition; see --standard --help
  --tls                TLS without ALPN; certificates are never verified
  -k                   no note that they are not
  -X METHOD            GET (default), POST (default with a body) or DELETE
  -H 'name: value'     a request header; repeatable. host is added unless given
  --volatile-header H  the same, never put into a compression table
  -d, --data TEXT      a body
  --data-file FILE     a body from a file; "-" is standard input
  --timeout MS         limit for connecting, and for each request; 0: none.
                       Without it, 60 s without progress are the limit
  --repeat N           make N successive requests on one connection
  --parallel M         share them among M connections, and print a summary
  --blocking           use the library's blocking call: bodies of up to 1 MiB

Output:
  -i                   print status and headers before the body
  -o FILE              write the body to FILE, replaced when all has come
  --json               print each answer as one line of JSON
  --max-body BYTES     limit for a body in --json (default 16777216: 16 MiB)
  --timing             tell times and bytes per second, on standard error
  -v                   the library's log and console lines, on standard error
  -h, --help           this text
  --version            the version

Exit codes:
  0                    answered, status below 400
  22                   answered, status 400 or above
  2                    bad usage, or a file or the output fails
  3                    cannot connect
  4                    request failed
  5                    connection lost
  6                    timed out
  130                  interrupted (Ctrl-C)

Example: h2request -i -H 'accept: text/html' 127.0.0.1 8080 /index.html
)";

constexpr const char* kStandardHelp =
    R"(Usage: h2request --standard [options] http[s]://HOST[:PORT][/PATH]
Makes HTTP/2 requests to a server, prints the answers. HOST: a name, an IPv4
address, or an IPv6 address in brackets. HOST PORT PATH will do as well.

Request:
  --tls                TLS, as https:// has it
  -k                   do not verify the server's certificate
  --cacert FILE        trust the certificates in FILE, not the system's
  --cert FILE          the client's own certificate with its chain
  --key FILE           its key, unless that is in the same file
  -X METHOD            any method. Default: GET, or POST with a body
  -I                   HEAD: print status and headers
  -T FILE              PUT a file; "-" is standard input
  -H 'name: value'     a request header; repeatable
  --volatile-header H  the same, never put into a compression table
  -d, --data TEXT      a body
  --data-file FILE     a body from a file; "-" is standard input
  --connect-timeout S  limit for connecting, in seconds (default 10)
  --max-time S         limit for connecting, and for each request, in seconds.
                       Without it, 60 s without progress are the limit
  --timeout MS         the same in milliseconds; 0: none
  --repeat N           make N successive requests
  --parallel M         keep M of them under way, and print a summary
  --max-streams N      no more than N of these on one connection
  --blocking           use the library's blocking call

Output:
  -i                   print status and headers before the body
  -o FILE              write the body to FILE, replaced when all has come
  --json               print each answer as one line of JSON
  --max-body BYTES     limit for a body in --json (default 16777216: 16 MiB)
  --timing             tell times and bytes per second, on standard error
  -v                   frames both ways and the log, on standard error
  -h, --help           this text
  --version            the version

Exit codes: 0, 2 to 6, 22 and 130, as h2request --help has them.
)";

}  // namespace

const char* helpText() { return edition::kIsStandard ? kStandardHelp : kExactHelp; }

const char* versionText() {
    return edition::kIsStandard ? "h2request-standard (Http2Client) " H2REQUEST_VERSION
                                : "h2request (Http2Client) " H2REQUEST_VERSION;
}
