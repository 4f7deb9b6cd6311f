#!/usr/bin/env python3
"""A streaming service for tests of publish_host, with no code of the library: RTMP 1.0 and AMF0 as they are written.

    service.py [FILE...]    prints "port N", and then a line for each thing that a publisher does; and "FILE port N"
                            for each file of a certificate and its key, for the same over TLS

What it does is chosen by the names that a publisher asks for:

    app "nosuch"    refused: NetConnection.Connect.Rejected
    app "login"     asks for the login of "authmod=adobe"; the user is "pat", the password "secret word"
    app "challenge" asks with setChallenge, and answers no more
    app "other"     asks for the login of another scheme
    key "bad"       refused: NetStream.Publish.BadName
    key "busy"      refused once, because it is being published already; then taken
    key "full"      refused once, because the service fails; then taken
    key "ends"      taken, and ended after some pictures with a status of level "error"
"""
import base64
import functools
import hashlib
import os
import socket
import ssl
import struct
import sys
import threading

SALT, CHALLENGE, OPAQUE = 'c2FsdA==', 'Y2hhbGxlbmdl', 'b3BhcXVl'
USER, PASSWORD = 'pat', 'secret word'
refused = set()  # keys that are refused once
saying = threading.Lock()


def say(*words):
    with saying:
        print(*words, flush=True)


# ---------------------------------------------------------------------------------------------------------- AMF0
def encode(value):
    if value is None:
        return b'\x05'
    if isinstance(value, str):
        return b'\x02' + struct.pack('>H', len(value)) + value.encode()
    if isinstance(value, dict):
        members = b''.join(struct.pack('>H', len(k)) + k.encode() + encode(v) for k, v in value.items())
        return b'\x03' + members + b'\x00\x00\x09'
    return b'\x00' + struct.pack('>d', value)


class Values:
    """The values of a message body, one after the other."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, count):
        piece = self.data[self.at:self.at + count]
        if len(piece) != count:
            raise ValueError('a value is cut short')
        self.at += count
        return piece

    def text(self):
        return self.take(struct.unpack('>H', self.take(2))[0]).decode()

    def members(self):
        found = {}
        while True:
            name = self.text()
            value = self.next()
            if name == '' and value is self:
                return found
            found[name] = value

    def next(self):
        marker = self.take(1)[0]
        if marker == 0:
            return struct.unpack('>d', self.take(8))[0]
        if marker == 1:
            return self.take(1) != b'\x00'
        if marker == 2:
            return self.text()
        if marker == 3:
            return self.members()
        if marker == 8:
            self.take(4)
            return self.members()
        if marker == 9:
            return self  # the end of an object
        return None

    def all(self):
        found = []
        while self.at < len(self.data):
            found.append(self.next())
        return found


# -------------------------------------------------------------------------------------------------------- chunks
class Peer:
    def __init__(self, connection):
        self.connection = connection
        self.chunk_size = 128
        self.streams = {}  # chunk stream id: [length, type, body so far]

    def read(self, count):
        data = b''
        while len(data) < count:
            piece = self.connection.recv(count - len(data))
            if not piece:
                raise EOFError
            data += piece
        return data

    def shake_hands(self):
        if self.read(1) != b'\x03':
            raise ValueError('no RTMP')
        c1 = self.read(1536)
        self.connection.sendall(b'\x03' + bytes(1536) + c1)
        self.read(1536)

    def message(self):
        """The next whole message: its type and body."""
        while True:
            first = self.read(1)[0]
            shape, stream = first >> 6, first & 63
            if stream < 2:
                raise ValueError('a chunk stream id that no test needs')
            known = self.streams.setdefault(stream, [0, 0, b'', False])
            header = self.read((11, 7, 3, 0)[shape])
            if shape < 2:
                known[0], known[1] = int.from_bytes(header[3:6], 'big'), header[6]
            if shape < 3:
                known[3] = header[:3] == b'\xff\xff\xff'
            if known[3]:
                self.read(4)
            known[2] += self.read(min(self.chunk_size, known[0] - len(known[2])))
            if len(known[2]) == known[0]:
                body, known[2] = known[2], b''
                if known[1] == 1:
                    self.chunk_size = int.from_bytes(body, 'big')
                return known[1], body

    def send(self, kind, body, stream=0):
        """In one chunk for each 128 bytes."""
        header = b'\x03\x00\x00\x00' + len(body).to_bytes(3, 'big') + bytes([kind]) + struct.pack('<I', stream)
        pieces = [body[i:i + 128] for i in range(0, len(body), 128)]
        self.connection.sendall(header + b'\xc3'.join(pieces))

    def call(self, *values, stream=0):
        self.send(20, b''.join(encode(value) for value in values), stream)

    def refuse(self, transaction, description, code='NetConnection.Connect.Rejected'):
        self.call('_error', transaction, None, {'level': 'error', 'code': code, 'description': description})

    def status(self, level, code, description):
        self.call('onStatus', 0.0, None, {'level': level, 'code': code, 'description': description}, stream=1)


# --------------------------------------------------------------------------------------------------------- login
def digest(text):
    return base64.b64encode(hashlib.md5(text.encode()).digest()).decode()


def login(peer, transaction, app):
    """True: this app's query proves the password."""
    query = dict(pair.split('=', 1) for pair in app.partition('?')[2].split('&') if '=' in pair)
    if 'user' not in query:
        peer.refuse(transaction, '[ AccessManager.Reject ] : [ code=403 need auth; authmod=adobe ] : ')
        return False
    if 'response' not in query:
        peer.refuse(transaction, '[ AccessManager.Reject ] : [ authmod=adobe ] : ?reason=needauth&user='
                    f'{query["user"]}&salt={SALT}&challenge={CHALLENGE}&opaque={OPAQUE}')
        return False
    wanted = digest(digest(USER + SALT + PASSWORD) + OPAQUE + query['challenge'])
    if query['user'] != USER or query['response'] != wanted or query.get('opaque') != OPAQUE:
        peer.refuse(transaction, '[ AccessManager.Reject ] : [ authmod=adobe ] : ?reason=authfailed&opaque=-')
        return False
    return True


# ------------------------------------------------------------------------------------------------------ commands
def connect(peer, transaction, app):
    say('connect', app.partition('?')[0], 'tried' if '?' in app else 'plain')
    name = app.partition('?')[0]
    if name == 'nosuch':
        peer.refuse(transaction, 'there is no application of this name')
    elif name == 'other':
        peer.refuse(transaction, '[ AccessManager.Reject ] : [ code=403 need auth; authmod=llnw ] : ')
    elif name == 'challenge':
        peer.call('setChallenge', 0.0, None, 4711.0, 'a challenge of its own')
        return True
    elif name != 'login' or login(peer, transaction, app):
        peer.call('_result', transaction, None, {'level': 'status', 'code': 'NetConnection.Connect.Success'})
        return True
    return False


def publish(peer, key):
    say('publish', key)
    if key == 'bad':
        peer.status('error', 'NetStream.Publish.BadName', 'this key is not known')
        return False
    if key in ('busy', 'full') and key not in refused:
        refused.add(key)
        if key == 'busy':
            peer.status('error', 'NetStream.Publish.BadName', 'the stream is already being published')
        else:
            peer.status('error', 'NetStream.Failed', 'no room at the moment')
        return False
    peer.status('status', 'NetStream.Publish.Start', 'go on')
    return True


def command(peer, values):
    """False: the connection is over."""
    name, transaction = values[0], values[1]
    if name == 'connect':
        return connect(peer, transaction, values[2]['app'])
    if name == 'createStream':
        peer.call('_result', transaction, None, 1.0)
    elif name == 'publish':
        return publish(peer, values[3])
    elif name in ('FCUnpublish', 'deleteStream'):
        say(name)
    return True


def serve(connection):
    peer, key, pictures = Peer(connection), '', 0
    try:
        peer.shake_hands()
        while True:
            kind, body = peer.message()
            if kind == 20:
                values = Values(body).all()
                key = values[3] if values[0] == 'publish' else key
                if not command(peer, values):
                    break
            elif kind == 18:
                say('data', Values(body).all()[1])
            elif kind == 9 and body[1] == 1:
                pictures += 1
                if pictures == 1:
                    say('first', 'key frame' if body[0] >> 4 == 1 else 'other frame')
                if key == 'ends' and pictures == 5:
                    peer.status('error', 'NetStream.Publish.Rejected', 'the event is over')
    except (EOFError, OSError):
        pass
    except Exception as error:  # a test looks for it
        say('wrong', repr(error))
    connection.close()
    say('end', pictures)


def serve_tls(context, connection):
    try:
        connection = context.wrap_socket(connection, server_side=True)
    except (ssl.SSLError, OSError):
        say('no TLS')
        return
    serve(connection)


def accept_all(listener, server):
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=server, args=(connection,), daemon=True).start()


def listen(name):
    listener = socket.create_server(('127.0.0.1', 0))
    say(name, listener.getsockname()[1])
    return listener


def listen_with(certificate):
    """Over TLS, with a file of a certificate and its key."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate)
    listener = listen(f'{os.path.basename(certificate)} port')
    server = functools.partial(serve_tls, context)
    threading.Thread(target=accept_all, args=(listener, server), daemon=True).start()


def main():
    for certificate in sys.argv[1:]:
        listen_with(certificate)
    accept_all(listen('port'), serve)


if __name__ == '__main__':
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(0)
