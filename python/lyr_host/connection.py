"""A connection to an engine: whole frames, and what goes wrong with them."""
import os
import socket
import struct
from ctypes import sizeof

from . import layouts

STATUS_TEXTS = ("ok", "the service is not open", "no such operation", "wrong length of the request",
                "the reply does not fit", "another version of the protocol", "refused",
                "the engine holds as many bytes of requests as it may; try again later")
RESULT_TEXTS = {1: "failed (1)",
                2: "refused (2): the module does not know such a request",
                0xFFFFFFFF: "failed (0xFFFFFFFF): no table, or a broken chain in it"}


class Error(Exception):
    """What goes wrong with an engine."""


class NoEngine(Error):
    """There is no engine, or it went away or was silent for too long: the client is closed."""


class Refused(Error):
    """Nothing ran. `status` is the status of the reply; 7, busy, may fare better later."""

    def __init__(self, text, status):
        super().__init__(text)
        self.status = status


class OperationFailed(Error):
    """The operation ran and returned `result`, which is not 0."""

    def __init__(self, result):
        super().__init__(RESULT_TEXTS.get(result, "result %d" % result))
        self.result = result


class BadReply(Error):
    """An answer has another length than it must have, or contradicts itself."""


def default_path():
    """The socket of the user's own engine."""
    directory = os.environ.get("XDG_RUNTIME_DIR")
    return directory + "/lyr_host.sock" if directory else "/tmp/lyr_host-%d.sock" % os.geteuid()


class Connection:
    """Requests and replies, one after the other. Not for several threads at once."""

    def __init__(self, path, connect_timeout, timeout):
        self.path = path
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._follows = False
        try:
            self._socket.settimeout(connect_timeout)
            self._socket.connect(path)
            self._check_peer()
            self._socket.settimeout(timeout)
        except OSError as error:
            self.close()
            raise NoEngine("no engine at %s: %s" % (path, error.strerror or error)) from error
        except NoEngine:
            self.close()
            raise

    def close(self):
        self._socket.close()

    def fileno(self):
        return self._socket.fileno()

    def _check_peer(self):
        # In a directory that others may write to, anyone can offer a socket of any name.
        peer = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        user = struct.unpack("=iII", peer)[1]
        if user != os.geteuid():
            raise NoEngine("the engine at %s is that of user %d, and serves nobody else" %
                           (self.path, user))

    def ask(self, code, payload=b""):
        """The result and the payload of the reply to a request. Raises NoEngine and Refused."""
        if self._follows:
            raise ValueError("this client follows, and serves for nothing else")
        if len(payload) > layouts.MUND_WIRE_MAX_PAYLOAD:
            raise ValueError("the request has %d bytes, and a frame takes at most %d" %
                             (len(payload), layouts.MUND_WIRE_MAX_PAYLOAD))
        if self.fileno() < 0:
            raise NoEngine("there is no connection to an engine")
        header = layouts.MundWireHeader(version=layouts.MUND_WIRE_VERSION, code=code,
                                        length=len(payload))
        try:
            self._socket.sendall(bytes(header) + payload)
        except (BrokenPipeError, ConnectionResetError):
            pass  # An engine that closes before it has read everything has said why.
        except OSError as error:
            self._lose(error)
        return self.receive(code)

    def receive(self, code):
        """The result and the payload of the next frame, which is about `code`."""
        header = layouts.MundWireHeader.from_buffer_copy(
            self._bytes(sizeof(layouts.MundWireHeader)))
        # A client that is turned away is told so before its request is read.
        expected = header.code == code or header.status == layouts.MUND_WIRE_REFUSED
        if (header.version != layouts.MUND_WIRE_VERSION or not expected or
                header.length > layouts.MUND_WIRE_MAX_PAYLOAD):
            self.close()
            raise NoEngine("%s: what answers there does not speak version %d of the protocol" %
                           (self.path, layouts.MUND_WIRE_VERSION))
        payload = self._bytes(header.length)
        if header.status == layouts.MUND_WIRE_OK:
            return header.result, payload
        if header.status == layouts.MUND_WIRE_REFUSED:
            text = payload.decode(errors="replace")
        elif header.status < len(STATUS_TEXTS):
            text = STATUS_TEXTS[header.status]
        else:
            text = "unknown status %d" % header.status
        raise Refused(text, header.status)

    def follow(self):
        """Begins to follow: there is nothing to be had but frames of lines from here on."""
        self.ask(layouts.MUND_WIRE_FOLLOW)
        self._follows = True
        self._socket.settimeout(None)

    def _bytes(self, size):
        data = bytearray(size)
        view = memoryview(data)
        while view:
            try:
                count = self._socket.recv_into(view)
            except OSError as error:
                self._lose(error)
            if count == 0:
                self._lose(None)
            view = view[count:]
        return bytes(data)

    def _lose(self, error):
        self.close()
        if isinstance(error, socket.timeout):
            raise NoEngine("the engine at %s has not answered in time" % self.path) from error
        raise NoEngine("the engine at %s has closed the connection" % self.path) from error
