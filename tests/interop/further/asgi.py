"""The answers of ../server.js as an ASGI application, for Hypercorn. The folder of files: $DOCROOT."""
import hashlib
import os

CHUNK = 65536


async def pieces(receive):
    more = True
    while more:
        message = await receive()
        if message['type'] != 'http.request':
            return
        yield message.get('body', b'')
        more = message.get('more_body', False)


async def answer(send, status, body=b'', headers=()):
    await send({'type': 'http.response.start', 'status': status, 'headers': list(headers)})
    await send({'type': 'http.response.body', 'body': body})


async def send_file(send, name):
    path = os.path.join(os.environ['DOCROOT'], os.path.basename(name))
    if not os.path.isfile(path):
        await answer(send, 404)
        return
    await send({'type': 'http.response.start', 'status': 200, 'headers': []})
    with open(path, 'rb') as file:
        while data := file.read(CHUNK):
            await send({'type': 'http.response.body', 'body': data, 'more_body': True})
    await send({'type': 'http.response.body', 'body': b''})


async def app(scope, receive, send):
    if scope['type'] != 'http':
        return
    path, method = scope['path'], scope['method']
    if path == '/echo':
        body = b''.join([piece async for piece in pieces(receive)])
        await answer(send, 200, body or f'{method} without a body\n'.encode())
    elif path == '/app/upload':
        digest = hashlib.sha256()
        async for piece in pieces(receive):
            digest.update(piece)
        await answer(send, 200, f'{digest.hexdigest()}\n'.encode())
    elif path in ('/app/204', '/app/304'):
        await answer(send, int(path[5:]))
    elif path == '/app/headers':
        await answer(send, 200, b'large headers\n',
                     [(f'x-filler-{i}'.encode(), b'f' * 1000) for i in range(16)])
    elif path == '/app/limited':
        await answer(send, 413, b'too large\n')
    elif method == 'HEAD':
        await answer(send, 200)
    else:
        await send_file(send, path)
