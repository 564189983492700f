"""What the daemon has to do when calls fail: its threads as descriptions of their calls.

Each thread is described here by what it calls, in order, and by what a failure of each call leads
to. Given the calls that a daemon made, with their outcomes, the description says what it must have
printed and sent and what it must still hold. A call that is not due, a line with other words, an
end that comes too early: each is Unexpected.
"""

import collections
import os

import wire
from board import THREAD_END
from lab import packets
from sweep.printers import IPP_TYPE, PDL_TYPE, SERVICES, UNMODELLED

STATUS_FILE = "/proc/printer_status"
DEVICE = f"/dev/usblp{UNMODELLED.port}"

# Failures of these change nothing that anybody sees, but for the time that something takes.
HARMLESS = frozenset(
    "close fcntl fstat dup2 shutdown sleep usleep sigsuspend sysconf clock_gettime "
    "pthread_attr_setstacksize".split()
)

STDOUT, STDERR = 1, 2
TRANSMISSIONS = 3
JOBS_KEPT = 4
PACKETS_THAT_END_THE_PROBE = 12
SET_UP_STEPS = (
    ("setsockopt", "[Bonjour] setsockopt SO_REUSEADDR"),
    ("bind", "[Bonjour] discovery bind"),
    ("setsockopt", "[Bonjour] setsockopt SO_BINDTODEVICE"),
    ("setsockopt", "[Bonjour] setsockopt IP_ADD_MEMBERSHIP"),
    ("setsockopt", "[Bonjour] setsockopt IP_MULTICAST_IF"),
    ("setsockopt", "[Bonjour] setsockopt IP_MULTICAST_LOOP"),
    ("setsockopt", "[Bonjour] setsockopt SO_RCVTIMEO"),
)

NO_THREAD = "[Bonjour] pthread_create error"
NO_SHORT_THREAD = "[Bonjour] pthread_create"
NO_MEMORY = "[Bonjour] malloc error"
BANNER = "[QX] T5140 Bonjour v2.1 Start ("


class Unexpected(AssertionError):
    """The daemon did something else than it has to."""


class _Ended(Exception):
    """The thread ended where it may."""


def failed(call):
    return call.result < 0


class Question:
    """A datagram to the daemon: what it asks for, and how a log line names that."""

    def __init__(self, payload, label=None, asks=lambda service: False, is_host=False):
        self.payload = payload
        self.label = label
        self.asks = asks
        self.is_host = is_host


class Expectation:
    """What one daemon had to do so far, as far as its calls were shown to feed().

    `sent` is the list of Questions that were sent to it, `contents` the ports of the printers that
    the status file lists, by its length in bytes; both are filled in by whoever drives the daemon.
    """

    def __init__(self, asker):
        self.sent = []
        self.contents = {0: frozenset()}
        # What had to be seen: the lines by stream, and how often which packet left.
        self.lines = {STDOUT: [], STDERR: []}
        self.packets = collections.Counter()
        # The daemon's state.
        self.has_hardware_address = False
        self.is_connected = False
        self.is_answering = False
        self.has_printed_banner = False
        self.present = frozenset()
        # The registered services, each with the TXT text that its entry refers to.
        self.registry = {}
        self.taken = 0
        self.spare_descriptors = 0
        self._jobs_made = 0
        self._asker = asker
        self._texts = {}
        self._kept_texts = []
        self._has_work_buffer = False
        # The threads: what each still has to do, and its calls that were not looked at yet.
        self._threads = {}
        self._waiting = collections.defaultdict(collections.deque)
        self._begin(0, self._initial())

    @property
    def blocks(self):
        """The heap blocks that the daemon holds."""
        texts = sum(text is not None for text in self._texts.values()) + len(self._kept_texts)
        return texts + len(self.registry) + self._has_work_buffer

    @property
    def mappings(self):
        """The senders' jobs that are kept for later packets once nothing is being sent."""
        return min(self._jobs_made, JOBS_KEPT)

    @property
    def descriptors(self):
        """What its descriptors from 3 on refer to, once nothing is under way."""
        return sorted(["/dev/null"] * self.spare_descriptors + ["socket"] * self.is_connected)

    @property
    def unfinished(self):
        """The threads that have not done all that they have to."""
        return sorted(number for number, body in self._threads.items() if body is not None)

    def feed(self, calls):
        """Looks at further calls, each of which has returned, a thread's own in their order."""
        for call in calls:
            self._waiting[call.thread].append(call)
        has_moved = True
        while has_moved:
            has_moved = False
            for number in list(self._waiting):
                # A thread's first call may come before its creator's call has returned.
                while number in self._threads and self._waiting[number]:
                    self._step(number, self._waiting[number].popleft())
                    has_moved = True

    def check_fed(self):
        left = [call for calls in self._waiting.values() for call in calls]
        if left:
            raise Unexpected(f"calls of threads that nobody started: {left[0]}")

    def localised(self, payload):
        """The bytes of a packet with the names that this daemon has: without a hardware address
        other ones."""
        if self.has_hardware_address:
            return payload
        without = payload.replace(b"00-11-22-AA-BB-CC", b"00-00-00-00-00-00")
        return without.replace(b"(aa:bb:cc)", b"(00:00:00)")

    def _local_text(self, text):
        return self.localised(text.encode()).decode()

    # Threads

    def _begin(self, number, body):
        self._threads[number] = body
        next(body)

    def _step(self, number, call):
        body = self._threads[number]
        try:
            if body is not None:
                body.send(call)
            elif call.function not in HARMLESS:
                raise Unexpected(f"{call} after all that the thread has to do")
        except StopIteration:
            self._threads[number] = None

    def _to_its_end(self, body):
        try:
            yield from body
        except _Ended:
            return
        yield from self._call(THREAD_END)

    def _call(self, *wanted, text=None, may_end=False):
        """The thread's next call, which has to be one of the functions `wanted`, about `text`."""
        while True:
            call = yield
            if call.function in wanted and text in (None, call.text):
                return call
            if call.function == THREAD_END and may_end:
                raise _Ended
            if call.function == "open" and call.text == "/dev/null":
                self.spare_descriptors += not failed(call)
            elif call.function == "open" and call.text.startswith("/proc/self/fd/"):
                pass
            elif call.function not in HARMLESS:
                about = "" if text is None else f" {text!r}"
                raise Unexpected(f"{' or '.join(wanted)}{about} was due: {call}")

    def _line(self, text, stream=STDOUT):
        call = yield from self._call("write", "send", text=text)
        if call.about != stream:
            raise Unexpected(f"on the wrong stream: {call}")
        if not failed(call):
            self.lines[stream].append(text)

    def _error(self, text, call):
        yield from self._line(f"{text}: {os.strerror(call.error)}", STDERR)

    def _start(self, body, message):
        """Starts a joinable thread; false if that fails."""
        call = yield from self._call("pthread_create")
        if failed(call):
            yield from self._error(message, call)
            return False
        self._begin(call.result, self._to_its_end(body))
        return True

    # The initial thread

    def _initial(self):
        control = yield from self._call("socket")
        if not failed(control):
            request = yield from self._call("ioctl")
            self.has_hardware_address = not failed(request)
            if failed(request):
                yield from self._error("[Bonjour] ioctl HWADDR error", request)
        if not (yield from self._start(self._responder(), NO_THREAD)):
            return
        has_monitor = yield from self._start(self._monitor(), NO_THREAD)
        banner = yield from self._call("write", "send")
        if not banner.text.startswith(BANNER) or banner.about != STDOUT:
            raise Unexpected(f"the banner was due: {banner}")
        self.has_printed_banner = True
        if not failed(banner):
            self.lines[STDOUT].append(banner.text)
        yield from self._call("pthread_join")
        if has_monitor:
            yield from self._call("pthread_join")

    # The responder

    def _update_address(self):
        control = yield from self._call("socket")
        if failed(control):
            return False
        for name in ("SIOCGIFFLAGS", "SIOCGIFADDR"):
            request = yield from self._call("ioctl")
            if failed(request):
                yield from self._line(f"[Bonjour] ioctl {name} failed:br0")
                yield from self._error(f"[Bonjour] ioctl {name} failed", request)
                return False
        return True

    def _set_up_socket(self):
        if not (yield from self._update_address()):
            yield from self._line("[SocketSetup_For_Interface_N] UpdateHostIP error")
            return
        if failed((yield from self._call("socket"))):
            return
        for function, message in SET_UP_STEPS:
            step = yield from self._call(function)
            if failed(step):
                yield from self._error(message, step)
                return
        self.is_connected = True
        yield from self._line("[Bonjour] Interface: br0 is connected")

    def _responder(self):
        # No fault lasts as long as the set-up is tried.
        while not self.is_connected:
            yield from self._set_up_socket()
        if (yield from self._start(self._prober(), NO_SHORT_THREAD)):
            yield from self._call("pthread_join")
        name = self._local_text("T5140_00-11-22-AA-BB-CC")
        yield from self._line(f"[Bonjour] default device name = {name}")
        self.is_answering = yield from self._start(self._answering(), NO_THREAD)
        yield from self._line("[Bonjour] Answer Name Start (192.168.77.1)")
        yield from self._update_address()
        # The stop
        if self.is_answering:
            yield from self._call("pthread_join")
        yield from self._withdraw_all()

    def _withdraw_all(self):
        while True:
            first = yield from self._call("calloc", THREAD_END)
            if (first.function == THREAD_END) == bool(self.registry):
                raise Unexpected(f"{len(self.registry)} services are registered: {first}")
            if first.function == THREAD_END:
                raise _Ended
            yield from self._unregister(next(iter(self.registry)), first)

    def _prober(self):
        yield from self._send(self.localised(wire.HOST_PROBE))
        for _ in range(PACKETS_THAT_END_THE_PROBE):
            received = yield from self._call("recvfrom")
            if failed(received):
                yield from self._line("[Bonjour] MDNS_CheckName: receive packet timeout")
                return
            self._take_datagram(received)
        yield from self._line("[Bonjour] MDNS_CheckName: ignorePackets limits.")

    # Senders

    def _send(self, payload):
        """Hands a packet to a sender of its own, in a job of its own. The jobs of senders that
        ended or could not be started carry later packets."""
        call = yield from self._call("mmap", "pthread_create")
        if call.function == "mmap":
            if failed(call):
                return
            self._jobs_made += 1
            call = yield from self._call("pthread_create")
        elif self._jobs_made == 0:
            raise Unexpected(f"a job was due: {call}")
        if failed(call):
            # One is left over, and the next packet takes that first.
            yield from self._error(NO_SHORT_THREAD, call)
            return
        self._begin(call.result, self._to_its_end(self._sender(payload)))

    def _sender(self, payload):
        for _ in range(TRANSMISSIONS):
            transmission = yield from self._call("sendto")
            if failed(transmission):
                yield from self._error("[Bonjour] send packet error", transmission)
                return
            self.packets[payload] += 1

    # Answering

    def _take_datagram(self, call):
        question = self.sent[self.taken]
        if call.result != len(question.payload):
            raise Unexpected(f"{len(question.payload)} bytes were sent: {call}")
        self.taken += 1
        return question

    def _answering(self):
        while True:
            received = yield from self._call("recvfrom", may_end=True)
            if failed(received) or received.result == 0:
                continue
            question = self._take_datagram(received)
            asker = f"from {self._asker} ({len(question.payload)})"
            if question.is_host:
                yield from self._line(
                    f"[Bonjour] answer(192.168.77.1) query target {asker}",
                )
                yield from self._answer(self.localised(wire.HOST_ANSWER))
            elif question.label is not None:
                yield from self._scan(question, asker)

    def _answer(self, payload):
        if (yield from self._update_address()):
            yield from self._send(payload)
        else:
            yield from self._line("[MDNS_Answer] UpdateHostIP error")

    def _scan(self, question, asker):
        for service in self.registry:
            label = yield from self._call("calloc")
            if failed(label):
                yield from self._error(NO_MEMORY, label)
                return
            if not question.asks(service):
                continue
            yield from self._line(
                f"[Bonjour] answer(192.168.77.1) query {question.label} {asker}"
            )
            # The instance name, the type name, the TXT text.
            if (yield from self._allocate(3)):
                yield from self._answer(self.localised(service.records))

    def _allocate(self, blocks, first=None):
        """Takes blocks from the heap, or prints that there is no memory for one. `first` is the
        first call, if it was looked at already."""
        for number in range(blocks):
            block = first if number == 0 and first else (yield from self._call("calloc"))
            if failed(block):
                yield from self._error(NO_MEMORY, block)
                return False
        return True

    # The monitor

    def _monitor(self):
        self._has_work_buffer = yield from self._allocate(1)
        if not self._has_work_buffer:
            return
        try:
            while True:
                opened, listed = yield from self._read_status_file(may_end=True)
                if failed(opened):
                    yield from self._line(f'[Bonjour] Can not open "{STATUS_FILE}"')
                    continue
                for port in sorted(listed ^ self.present):
                    if port in listed:
                        yield from self._insert(port)
                    else:
                        yield from self._remove(port)
                self.present = listed
        finally:
            self._has_work_buffer = False

    def _read_status_file(self, may_end=False):
        """The open, and the ports of the printers that were listed."""
        opened = yield from self._call("open", text=STATUS_FILE, may_end=may_end)
        held = 0
        while not failed(opened):
            piece = yield from self._call("read")
            if piece.result <= 0:
                break
            held += piece.result
        return opened, self.contents[held]

    def _insert(self, port):
        yield from self._line(f"[Bonjour] device insert lp{port}")
        for service in SERVICES[port]:
            self._texts[service] = object() if (yield from self._allocate(1)) else None
            if self._texts[service] is None:
                continue
            if not (yield from self._build_text(port)):
                yield from self._line("[Bonjour] GetTXTData error")
            elif not (yield from self._register(service)):
                yield from self._line("**********RegisterOneService error*************")

    def _build_text(self, port):
        buffer = yield from self._call("calloc")
        if failed(buffer):
            yield from self._error("[Bonjour] calloc error", buffer)
            return False
        opened, listed = yield from self._read_status_file()
        if failed(opened):
            yield from self._error(f'[Bonjour] Can not open "{STATUS_FILE}"', opened)
        if port not in listed:
            return False
        return port != UNMODELLED.port or (yield from self._ask_for_model())

    def _ask_for_model(self):
        device = yield from self._call("open", text=DEVICE)
        if failed(device):
            yield from self._error("[Bonjour] no usb device", device)
            return False
        if not (yield from self._allocate(1)):
            return False
        request = yield from self._call("ioctl")
        if failed(request):
            yield from self._error("[Bonjour] ioctl printer failed", request)
        return not failed(request)

    def _describe(self, service):
        return self._local_text(f"{service.name} {service.type} .local")

    def _register(self, service):
        if service in self.registry:
            described = self._describe(service)
            yield from self._line(f"[Bonjour] this service: {described} is already registered")
            yield from self._line("[Bonjour] SERVICE_ADD error")
            return False
        if not (yield from self._allocate(1)):
            yield from self._line("[Bonjour] SERVICE_ADD error")
            return False
        self.registry[service] = self._texts[service]
        # The host name, the instance name, the type name.
        if not (yield from self._allocate(3)):
            yield from self._line("[Bonjour] PacketsComposeAdd error")
            return False
        yield from self._send(self.localised(service.probe))
        yield from self._send(self.localised(service.records))
        return True

    def _remove(self, port):
        yield from self._line(f"[Bonjour] device remove lp{port}")
        for service in SERVICES[port]:
            if self._texts[service] is None:
                continue
            if not (yield from self._unregister(service)):
                yield from self._line("**********UnRegisterOneService error*************")
            # A text is given back when no registered service refers to it any more.
            self._kept_texts.append(self._texts[service])
            referred = set(self.registry.values())
            self._kept_texts = [text for text in self._kept_texts if text in referred]
            self._texts[service] = None

    def _unregister(self, service, first=None):
        # The instance name, the type name.
        if not (yield from self._allocate(2, first)):
            yield from self._line("[Bonjour] PacketsComposeRemove error")
            return False
        yield from self._send(self.localised(service.goodbye))
        if service not in self.registry:
            described = self._describe(service)
            yield from self._line(f"[Bonjour] this service: {described} is not registered")
            yield from self._line("[Bonjour] SERVICE_REMOVE error")
            return False
        del self.registry[service]
        return True


def questions(expectation):
    """The three sorts of question: for the host name; for a service type; for the subtype and for
    one instance."""
    instance = f"HP Laser A  (aa:bb:cc) {UNMODELLED.port}.{PDL_TYPE}.local"
    asked = (
        Question(wire.HOST_QUESTION, is_host=True),
        Question(
            packets.query((f"{IPP_TYPE}.local", "PTR")),
            "_ipp",
            lambda service: service.type == IPP_TYPE,
        ),
        Question(
            packets.query((f"_universal._sub.{IPP_TYPE}.local", "PTR")),
            "_ipp",
            lambda service: service.type == IPP_TYPE,
        ),
        Question(
            packets.query((instance, "SRV")),
            "_pdl-datastream",
            lambda service: service is SERVICES[UNMODELLED.port][0],
        ),
    )
    for one in asked:
        one.payload = expectation.localised(one.payload)
    return asked
