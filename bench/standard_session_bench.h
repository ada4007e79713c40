#ifndef HTTP2CLIENT_BENCH_STANDARD_SESSION_BENCH_H
#define HTTP2CLIENT_BENCH_STANDARD_SESSION_BENCH_H

// Registers what the standard edition's session costs, each job beside libnghttp2's session, whose
// callbacks do nothing.
void addSessions();

#endif  // HTTP2CLIENT_BENCH_STANDARD_SESSION_BENCH_H
