"""Every text that the program prints or sends, written down a second time."""

import ctypes
import socket

USAGE = b"""\
USAGE:
\tvindra [port] -ssl [ssl_port] [key] [crt] -map [host_header] [local_port]
WHERE:
\t-[port] is the http port
\t-if -ssl is specified, [ssl_port] is the https port and [key] and [crt]
\t are the key and certificate file paths
\t -if [port] is non-zero, it will redirect to [ssl_port]
\t -if [port] is zero, it will be ignored
\t-if -map is specified, incoming requests with [host_header] are forwarded
\t to [local_port]
\t -if [local_port] is -1, the [host_header] is mapped to an echo handler, which
\t  is useful for debugging
\t -multiple -map flags can be specified

"""

NOT_FOUND = b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n"
BAD_GATEWAY = (b"HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
               b"Unable to connect")
TOO_LONG = b"Warning! Request exceeds max length of 104857600.\n"
SHUTTING_DOWN = b"Shutting down...\n"


def echo_answer(request_head):
    """What a host mapped to -1 answers to a head (with its blank line) from this machine."""
    body = request_head + b"Your IPv4 address is: 127.0.0.1"
    return b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n%s" % (
        len(body), body)


def log_line(host, port, request_line, agent="", address="127.0.0.1"):
    """The line printed for a request from `port` on this machine."""
    return f"[{host}] {address}:{port} {request_line} [{agent}]\n".encode("latin-1")


def binding_lines(port):
    """What is printed before the wildcard address is bound."""
    return b"Binding to port %d on all adapters:\n%s\n" % (
        port, "\n".join(ipv4_addresses()).encode())


def bind_failure_lines():
    return (b"bind() failed: -1 %s\n"
            b"Check that the port isn't already taken.\n"
            b"This can be done with 'netstat -an' on windows/mac/linux.\n" % resolver_text(-1))


def resolver_text(code):
    """The resolver's message for an error code."""
    libc = ctypes.CDLL(None)
    libc.gai_strerror.restype = ctypes.c_char_p
    return libc.gai_strerror(code)


class _Address(ctypes.Structure):
    _fields_ = [("family", ctypes.c_ushort), ("port", ctypes.c_ushort), ("ip", ctypes.c_ubyte * 4)]


class _Interface(ctypes.Structure):
    pass


_Interface._fields_ = [("next", ctypes.POINTER(_Interface)), ("name", ctypes.c_char_p),
                       ("flags", ctypes.c_uint), ("address", ctypes.POINTER(_Address))]


def ipv4_addresses():
    """This machine's IPv4 addresses in the order in which the system lists them."""
    libc = ctypes.CDLL(None)
    first = ctypes.POINTER(_Interface)()
    assert libc.getifaddrs(ctypes.byref(first)) == 0
    found, entry = [], first
    while entry:
        address = entry.contents.address
        if address and address.contents.family == socket.AF_INET:
            found.append(".".join(map(str, address.contents.ip)))
        entry = entry.contents.next
    libc.freeifaddrs(first)
    return found
