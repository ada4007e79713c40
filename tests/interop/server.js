// Three servers in one, which serve DOCROOT and send back what is posted to /echo: ECHO_PORT in
// HTTP/1.1, as the upstream of other servers, HTTP2_PORT and TLS_PORT in HTTP/2. A request without a body gets its method back in words, for a client that waits
// for a body. Paths that begin with /app/ have the answers of `app`, on all three ports. SIGTERM ends
// the process when the streams that are open have ended.
'use strict';
const crypto = require('crypto');
const fs = require('fs');
const http = require('http');
const http2 = require('http2');
const path = require('path');

const [, , echoPort, http2Port, tlsPort, docroot, certificateAndKey] = process.argv;

function echo(request, response) {
  const parts = [];
  request.on('data', (part) => parts.push(part));
  request.on('end', () => {
    let body = Buffer.concat(parts);
    if (body.length === 0) body = Buffer.from(`${request.method} without a body\n`);
    response.writeHead(200, { 'content-length': body.length });
    response.end(body);
  });
}

// The answers that servers give only if an application wants them.
const app = {
  // The SHA-256 of what came.
  upload(request, response) {
    const digest = crypto.createHash('sha256');
    request.on('data', (part) => digest.update(part));
    request.on('end', () => {
      response.writeHead(200);
      response.end(`${digest.digest('hex')}\n`);
    });
  },
  204(request, response) {
    response.writeHead(204);
    response.end();
  },
  304(request, response) {
    response.writeHead(304, { etag: '"1"' });
    response.end();
  },
  headers(request, response) {
    const headers = {};
    for (let i = 0; i < 16; ++i) headers[`x-filler-${i}`] = 'f'.repeat(1000);
    response.writeHead(200, headers);
    response.end('large headers\n');
  },
  trailers(request, response) {
    response.writeHead(200, { trailer: 'x-trailer' });
    response.write('then trailers\n');
    response.addTrailers({ 'x-trailer': 'yes' });
    response.end();
  },
  early(request, response) {
    response.writeEarlyHints({ link: '</style.css>; rel=preload; as=style' });
    setTimeout(() => {
      response.writeHead(200);
      response.end('hinted\n');
    }, 20);
  },
  // Refuses an upload before it has come.
  limited(request, response) {
    response.writeHead(413);
    response.end('too large\n');
  },
};

function serve(request, response) {
  if (request.url.startsWith('/app/')) {
    app[request.url.slice(5)](request, response);
    return;
  }
  if (request.url.startsWith('/echo')) {
    echo(request, response);
    return;
  }
  const stream = fs.createReadStream(path.join(docroot, path.basename(request.url)));
  stream.on('error', () => {
    response.writeHead(404);
    response.end();
  });
  stream.on('open', () => {
    response.writeHead(200);
    stream.pipe(response);
  });
}

const pem = fs.readFileSync(certificateAndKey);
const sessions = new Set();
const upstream = http.createServer(serve).listen(Number(echoPort), '127.0.0.1');
const servers = [
  http2.createServer(serve).listen(Number(http2Port), '127.0.0.1'),
  http2.createSecureServer({ cert: pem, key: pem }, serve).listen(Number(tlsPort), '127.0.0.1'),
];
for (const server of servers) {
  server.on('session', (session) => {
    sessions.add(session);
    session.on('close', () => sessions.delete(session));
  });
}

process.on('SIGTERM', () => {
  upstream.close();
  upstream.closeAllConnections();
  for (const server of servers) server.close();
  for (const session of sessions) session.close();
  setTimeout(() => process.exit(0), 5000).unref(); // for a stream that does not end
});
