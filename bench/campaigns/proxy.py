"""An HTTP proxy in front of a store. It forwards requests and responses as they are, and injects faults."""

import select
import socket
import struct
import threading
import time


def receive_all(connection):
    data = b""
    try:
        while block := connection.recv(1 << 20):
            data += block
    except ConnectionResetError:
        pass  # what arrived before is complete, or an early response
    return data


def split(message):
    head, _, body = message.partition(b"\r\n\r\n")
    return head + b"\r\n\r\n", body


class Request:
    def __init__(self, head, body):
        self.head, self.body = head, body
        self.method = head.split(b" ", 1)[0].decode()


def reset(connection):
    """Close with a reset instead of a normal end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Proxy:
    """Serves every request on a connection of its own, so that a fault concerns one request."""

    def __init__(self, host, port, choose):
        """`choose(request)` returns the fault for a request, a function of (proxy, request, client), or None."""
        self.store = (host, port)
        self.choose = choose
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            threading.Thread(target=self.serve, args=(client,), daemon=True).start()

    def serve(self, client):
        try:
            with client:
                client.settimeout(120)
                if request := self.read_request(client):
                    fault = self.choose(request)
                    if fault:
                        fault(self, request, client)
                    else:
                        client.sendall(self.forward(request))
        except OSError:
            pass  # the client or the store has closed its connection

    def read_request(self, client):
        data = b""
        while b"\r\n\r\n" not in data:
            block = client.recv(1 << 16)
            if not block:
                return None
            data += block
        head, body = split(data)
        fields = dict(line.split(b":", 1) for line in head.lower().split(b"\r\n")[1:] if b":" in line)
        if b"100-continue" in fields.get(b"expect", b""):
            client.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        size = int(fields.get(b"content-length", b"0"))
        while len(body) < size:
            block = client.recv(1 << 20)
            if not block:
                return None
            body += block
        lines = [line for line in head[:-4].split(b"\r\n") if not line.lower().startswith((b"expect:", b"connection:"))]
        return Request(b"\r\n".join([*lines, b"Connection: close", b"", b""]), body)

    def forward(self, request, body=None):
        """Return the store's whole response."""
        with socket.create_connection(self.store, timeout=120) as store:
            try:
                store.sendall(request.head + (request.body if body is None else body))
            except OSError:
                pass  # the store has responded without reading the whole body
            return receive_all(store)


# Faults.


def refuse(proxy, request, client):
    client.sendall(b"HTTP/1.1 503 Slow Down\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")


def fail_afterwards(proxy, request, client):
    proxy.forward(request)
    client.sendall(b"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")


def reset_before(proxy, request, client):
    reset(client)


def reset_after(proxy, request, client):
    proxy.forward(request)
    reset(client)


def cut_request(proxy, request, client):
    with socket.create_connection(proxy.store, timeout=120) as store:
        store.sendall((request.head + request.body)[: -max(1, len(request.body) // 2)])
    reset(client)


def cut_response(proxy, request, client):
    response = proxy.forward(request)
    client.sendall(response[: max(1, len(response) // 2)])


def pause(proxy, request, client):
    response = proxy.forward(request)
    client.sendall(response[: len(response) // 2])
    time.sleep(2)
    client.sendall(response[len(response) // 2 :])


def stall(proxy, request, client):
    """Send half of the response and keep the connection open until the client closes it."""
    response = proxy.forward(request)
    client.sendall(response[: len(response) // 2])
    select.select([client], [], [], 600)


FAULTS = [refuse, fail_afterwards, reset_before, reset_after, cut_request, cut_response, pause]


def flip(body, number):
    """Change one bit of the body; the number chooses it."""
    changed = bytearray(body)
    changed[number // 8 % len(body)] ^= 1 << number % 8
    return bytes(changed)
