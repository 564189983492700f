"""A USB printer as a program, plugged into a virtual machine through the usbredir protocol.

To connect to a port of the machine and describe a device is plugging the printer in, to close the
connection is pulling it out.
"""

import queue
import socket
import struct
import threading

from lab.waiting import PATIENCE, TimedOut

# Packets of the protocol: header, then by type. The first one has a shorter header. What can be
# done beyond the protocol's first version is agreed on there, and is what an xHCI asks for.
_HELLO_HEADER = struct.Struct("<III")
_HEADER = struct.Struct("<IIQ")
_HELLO_VERSION = 64
_PACKET_SIZES, _LONG_IDS, _LONG_BULK = 1 << 4, 1 << 5, 1 << 6
_HELLO, _CONNECT, _INTERFACES, _ENDPOINTS = 0, 1, 4, 5
_SET_CONFIGURATION, _GET_CONFIGURATION, _CONFIGURATION = 6, 7, 8
_SET_ALTERNATE, _GET_ALTERNATE, _ALTERNATE = 9, 10, 11
_CANCEL = 21
_CONTROL, _BULK = 100, 101
_CONTROL_HEADER = struct.Struct("<BBBBHHH")
_BULK_HEADER = struct.Struct("<BBHIH")
_SUCCESS, _CANCELLED, _STALL = 0, 1, 4
_HIGH_SPEED = 2
_SLOTS = 32  # endpoints and interfaces that the protocol allows for
_TYPE_CONTROL, _TYPE_BULK, _TYPE_NONE = 0, 2, 255

# USB requests: request type, request.
_TO_HOST = 0x80
_GET_STATUS = (0x80, 0)
_GET_DESCRIPTOR = (0x80, 6)
_GET_DEVICE_ID = (0xA1, 0)
_GET_PORT_STATUS = (0xA1, 1)
_DEVICE, _CONFIG, _STRING = 1, 2, 3
_PRINTER_CLASS, _PRINTERS, _BIDIRECTIONAL = 7, 1, 2
_BULK_OUT, _BULK_IN = 0x01, 0x82
_CONTROL_SIZE, _BULK_SIZE = 64, 512
_VENDOR, _PRODUCT = 0x1D6B, 0x0104
# Not in error, selected, with paper.
_PORT_STATUS = b"\x18"

_DEVICE_DESCRIPTOR = struct.pack(
    "<BBHBBBBHHHBBBB",
    *(18, _DEVICE, 0x0200, 0, 0, 0, _CONTROL_SIZE),
    *(_VENDOR, _PRODUCT, 0x0100, 0, 0, 0, 1),
)
_CONFIG_DESCRIPTOR = (
    struct.pack("<BBHBBBBB", 9, _CONFIG, 32, 1, 1, 0, 0xC0, 0)
    + bytes([9, 4, 0, 0, 2, _PRINTER_CLASS, _PRINTERS, _BIDIRECTIONAL, 0])
    + struct.pack("<BBBBHB", 7, 5, _BULK_OUT, 2, _BULK_SIZE, 0)
    + struct.pack("<BBBBHB", 7, 5, _BULK_IN, 2, _BULK_SIZE, 0)
)


class Stall(Exception):
    """What a device answers to a request that it does not know."""


class UsbPrinter:
    """A printer that is plugged in from its construction until it is unplugged.

    `device_id` is the IEEE 1284 id without its length bytes, or None for a printer that has none.
    With `held` it does not answer requests for it from the beginning.
    """

    def __init__(self, connection, device_id, held=False):
        self.device_id = device_id
        self._held = None
        if held:
            self.hold_device_id()
        self._unanswered = {}
        self._connection = connection
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def hold_device_id(self):
        """Leaves requests for the device id unanswered from now on."""
        self._held = queue.Queue()

    def wait_until_asked(self, bound=20.0):
        """Waits for a request for the device id that is held; raises TimedOut."""
        try:
            self._held.get(timeout=bound * PATIENCE)
        except queue.Empty:
            raise TimedOut("nobody asked for the device id") from None

    def pull_out(self):
        """Takes it off the bus, with every request that is under way."""
        self._connection.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._connection.close()

    # The protocol

    def _run(self):
        try:
            hello = b"lab".ljust(_HELLO_VERSION, b"\0")
            hello += struct.pack("<I", _PACKET_SIZES | _LONG_IDS | _LONG_BULK)
            self._connection.sendall(_HELLO_HEADER.pack(_HELLO, len(hello), 0) + hello)
            _, length, _ = _HELLO_HEADER.unpack(self._receive(_HELLO_HEADER.size))
            self._receive(length)
            self._describe()
            while True:
                type, length, ident = _HEADER.unpack(self._receive(_HEADER.size))
                self._take(type, ident, self._receive(length))
        except (EOFError, OSError):
            pass

    def _receive(self, length):
        taken = b""
        while len(taken) < length:
            more = self._connection.recv(length - len(taken))
            if not more:
                raise EOFError
            taken += more
        return taken

    def _send(self, type, ident, body):
        self._connection.sendall(_HEADER.pack(type, len(body), ident) + body)

    def _take(self, type, ident, body):
        if type == _SET_CONFIGURATION or type == _GET_CONFIGURATION:
            self._send(_CONFIGURATION, ident, bytes([_SUCCESS, 1]))
        elif type == _SET_ALTERNATE or type == _GET_ALTERNATE:
            self._send(_ALTERNATE, ident, bytes([_SUCCESS, 0, 0]))
        elif type == _CONTROL:
            self._control(ident, *_CONTROL_HEADER.unpack_from(body))
        elif type == _BULK:
            # What is printed is taken; a printer has nothing to tell unless asked.
            endpoint, _, length, stream, length_high = _BULK_HEADER.unpack_from(body)
            if endpoint == _BULK_OUT:
                taken = _BULK_HEADER.pack(endpoint, _SUCCESS, length, stream, length_high)
                self._send(_BULK, ident, taken)
            else:
                cancelled = _BULK_HEADER.pack(endpoint, _CANCELLED, 0, stream, 0)
                self._unanswered[ident] = _BULK, cancelled
        elif type == _CANCEL and ident in self._unanswered:
            type, cancelled = self._unanswered.pop(ident)
            self._send(type, ident, cancelled)

    def _describe(self):
        def table(entries, default):
            return bytes(entries.get(index, default) for index in range(_SLOTS))

        def slot(endpoint):
            return (endpoint & 0x80) >> 3 | endpoint & 0x0F

        self._send(
            _INTERFACES,
            0,
            struct.pack("<I", 1)
            + table({}, 0)
            + table({0: _PRINTER_CLASS}, 0)
            + table({0: _PRINTERS}, 0)
            + table({0: _BIDIRECTIONAL}, 0),
        )
        types = {slot(endpoint): _TYPE_BULK for endpoint in (_BULK_OUT, _BULK_IN)}
        types |= {slot(endpoint): _TYPE_CONTROL for endpoint in (0x00, 0x80)}
        sizes = [0] * _SLOTS
        sizes[slot(0x00)] = sizes[slot(0x80)] = _CONTROL_SIZE
        sizes[slot(_BULK_OUT)] = sizes[slot(_BULK_IN)] = _BULK_SIZE
        intervals = interfaces = table({}, 0)
        self._send(
            _ENDPOINTS,
            0,
            table(types, _TYPE_NONE) + intervals + interfaces + struct.pack(f"<{_SLOTS}H", *sizes),
        )
        self._send(_CONNECT, 0, struct.pack("<BBBBHH", _HIGH_SPEED, 0, 0, 0, _VENDOR, _PRODUCT))

    def _control(self, ident, endpoint, request, request_type, _, value, index, length):
        def answer(status, data=b"", taken=0):
            taken = len(data) or taken
            return _CONTROL_HEADER.pack(
                endpoint, request, request_type, status, value, index, taken
            ) + data

        if (request_type, request) == _GET_DEVICE_ID and self._held is not None:
            self._unanswered[ident] = _CONTROL, answer(_CANCELLED)
            self._held.put(ident)
            return
        to_host = request_type & _TO_HOST
        try:
            data = self._answer((request_type, request), value)[:length]
            reply = answer(_SUCCESS, data, taken=0 if to_host else length)
        except Stall:
            reply = answer(_STALL)
        self._send(_CONTROL, ident, reply)

    def _answer(self, request, value):
        if request == _GET_DESCRIPTOR and value >> 8 == _DEVICE:
            return _DEVICE_DESCRIPTOR
        if request == _GET_DESCRIPTOR and value >> 8 == _CONFIG:
            return _CONFIG_DESCRIPTOR
        if request == _GET_STATUS:
            return b"\0\0"
        if request == _GET_PORT_STATUS:
            return _PORT_STATUS
        if request == _GET_DEVICE_ID and self.device_id is not None:
            return struct.pack(">H", len(self.device_id) + 2) + self.device_id
        if request[0] & _TO_HOST:
            raise Stall
        return b""
