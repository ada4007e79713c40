#include "help.h"

const char* const kVersion = "h2request (Http2Client) " H2REQUEST_VERSION;

// With the next prompt it fits a screen of 40 lines, 80 columns wide.
const char* const kHelp =
    R"(Usage: h2request [options] IP PORT PATH | http[s]://IP[:PORT][/PATH]
Makes HTTP/2 requests to a server (IP: an IPv4 address), prints the answers.

Request:
  --tls                TLS without ALPN; certificates are never verified
  -k                   no note that they are not
  -X METHOD            GET (default), POST (default with a body) or DELETE
  -H 'name: value'     a request header; repeatable. host is added unless given
  --volatile-header 'name: value'
                       the same, never put into a compression table
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
