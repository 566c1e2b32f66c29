"""Talks to a collector byte by byte, as an agent does and as no agent would."""

import collections
import socket
import ssl
import zlib

import harness

Answer = collections.namedtuple("Answer", "status headers body clean")


class RawClient:
    def __init__(self, port):
        self.port = port
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        self.context.check_hostname = False
        self.context.verify_mode = ssl.CERT_NONE

    def connect(self):
        plain = socket.create_connection(("127.0.0.1", self.port), timeout=harness.PATIENCE_S)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return plain

    def connect_tls(self):
        return self.context.wrap_socket(self.connect(), suppress_ragged_eofs=False)

    def exchange(self, data):
        """Sends bytes and reads to the end. None when nothing came back but a broken connection."""
        received, clean = b"", False
        with self.connect_tls() as connection:
            try:
                connection.sendall(data)
                while True:
                    chunk = connection.recv(65536)
                    if not chunk:
                        clean = True
                        break
                    received += chunk
            except OSError:  # ssl.SSLEOFError is one
                pass
        if not received:
            return None
        head, _, body = received.decode("utf-8", "surrogateescape").partition("\r\n\r\n")
        lines = head.split("\r\n")
        headers = dict(line.split(": ", 1) for line in lines[1:])
        return Answer(lines[0], headers, body, clean)

    def login(self, account="user@example.net", agent="raw"):
        return self.exchange(("POST /fcgi-bin/agentgateway HTTP/1.0\r\n"
                              "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n"
                              "Vnd-EMail: %s\r\nVnd-AName: %s\r\nVnd-Platform: linux64\r\n"
                              "Vnd-Version: 3.0\r\n\r\n" % (account, agent)).encode())

    def session(self, account="user@example.net", agent="raw"):
        return self.login(account, agent).headers["Vnd-SessionID"]

    @staticmethod
    def poll_bytes(session, plain=b"", body=None, compression=None, checksum=None):
        """A poll with a block; what is given overrides what belongs to it."""
        if body is None:
            body = zlib.compress(plain) if plain else b""
        if compression is None:
            compression = len(plain)
        if checksum is None:
            checksum = zlib.adler32(body) if body else 0
        return ("POST /fcgi-bin/agentgateway HTTP/1.0\r\n"
                "Content-Type: application/octet-stream\r\nContent-Length: %d\r\n"
                "Vnd-SessionID: %s\r\nVnd-Compression: %s\r\nVnd-CheckSum: %s\r\n"
                "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n"
                % (len(body), session, compression, checksum)).encode() + body

    def poll(self, session, plain=b"", **overrides):
        return self.exchange(self.poll_bytes(session, plain, **overrides))
