// Three servers in one: what comes to ECHO_PORT in HTTP/1.1 goes back as it came (the upstream of the
// servers that cannot echo), and HTTP2_PORT and TLS_PORT serve DOCROOT and echo too, in HTTP/2 over
// plain TCP and TLS. A request without a body gets its method back in words, for a client that waits
// for a body.
'use strict';
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

function serve(request, response) {
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
http.createServer(echo).listen(Number(echoPort), '127.0.0.1');
http2.createServer(serve).listen(Number(http2Port), '127.0.0.1');
http2.createSecureServer({ cert: pem, key: pem }, serve).listen(Number(tlsPort), '127.0.0.1');
