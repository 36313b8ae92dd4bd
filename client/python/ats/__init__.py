"""Asks the InfiniBand address translation service of this machine. Finds the port GID of an IPv4 address, the IPv4 address
of a GID, and the path to an address or a GID.

    import ats
    with ats.Client() as client:
        print(client.resolve("10.0.0.2").gid)

Any number of asynchronous questions:

    async with ats.AsyncClient() as client:
        answers = await asyncio.gather(*(client.resolve(address) for address in addresses))
"""

from __future__ import annotations

import asyncio
import ctypes
import enum
import ipaddress
import json
import os
import threading
import time
import weakref
from dataclasses import dataclass
from typing import Any, Optional, Union

from . import _library as library

__all__ = ["Answer", "AsyncClient", "Client", "Error", "Invalid", "NoAnswer", "NotConnected", "NotFound", "Path", "Refused",
           "Source", "default_socket"]

Address = Union[str, ipaddress.IPv4Address]
Gid = Union[str, ipaddress.IPv6Address]
Destination = Union[str, ipaddress.IPv4Address, ipaddress.IPv6Address]
SocketPath = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]
DEFAULT_TIMEOUT = 5.0
STEP_MILLISECONDS = 200  # the longest time until Ctrl-C ends a question


class Error(Exception):
    """The question has failed. str() gives the reason in one line."""


class NotFound(Error):
    """The SA has no such record. With cached_only: the cache has no answer."""


class NoAnswer(Error):
    """The SA or the service did not answer in time."""


class Refused(Error):
    """The service or the SA refused the question."""


class NotConnected(Error):
    """No service listens, or the service ended before it answered."""


class Invalid(Error):
    """An argument is wrong, or the service's answer is invalid."""


ERRORS = {1: NotFound, 2: NoAnswer, 3: Refused, 4: NotConnected, 5: Invalid}


class Source(enum.Enum):
    NONE = 0
    CACHE = 1
    SA = 2


@dataclass(frozen=True)
class Answer:
    address: ipaddress.IPv4Address
    gid: ipaddress.IPv6Address
    source: Source
    seconds: float  # the time that the service needed
    # For verify=True. True: cache and SA agree. False: they differ, and this is the SA's answer. None: unknown.
    verified: Optional[bool]


@dataclass(frozen=True)
class Path:
    """A PathRecord (IBA 15.2.5.16) in the standard's encodings."""
    address: Optional[ipaddress.IPv4Address]  # the destination's address; None for a path to a GID
    gid: ipaddress.IPv6Address  # the destination's GID
    sgid: ipaddress.IPv6Address  # the GID of the port on which the path begins
    dlid: int
    slid: int
    p_key: int
    sl: int
    mtu: int  # 1 is 256 bytes, 5 is 4096
    rate: int
    packet_lifetime: int  # n means 4.096 microseconds times 2 to the n
    hop_limit: int
    flow_label: int
    traffic_class: int
    source: Source
    seconds: float  # the time that the service needed


def error_of(status: int, reason: str) -> Exception:
    if status == 6:
        return MemoryError(reason)
    return ERRORS.get(status, Error)(reason)


def answer_of(raw: library.Answer) -> Answer:
    """Converts the library's answer. Raises an exception if its status is an error."""
    if raw.status != 0:
        raise error_of(raw.status, raw.reason.decode(errors="replace"))
    return Answer(ipaddress.IPv4Address(ctypes.string_at(ctypes.byref(raw, library.Answer.address.offset), 4)),
                  ipaddress.IPv6Address(bytes(raw.gid)), Source(raw.source), raw.microseconds / 1e6,
                  None if raw.verified < 0 else bool(raw.verified))


def path_of(raw: library.Answer) -> Path:
    """Converts the path in the library's answer. Raises an exception if the answer's status is an error."""
    answer = answer_of(raw)
    path = raw.path
    return Path(answer.address if int(answer.address) else None, answer.gid, ipaddress.IPv6Address(bytes(path.sgid)), path.dlid,
                path.slid, path.p_key, path.sl, path.mtu, path.rate, path.packet_lifetime, path.hop_limit, path.flow_label,
                path.traffic_class, answer.source, answer.seconds)


def is_address(destination: Destination) -> bool:
    if isinstance(destination, str):
        return not destination.strip("0123456789.")
    return isinstance(destination, ipaddress.IPv4Address)


def address_word(address: Address) -> int:
    """Returns the address as the library expects it: a number whose bytes in memory are in network order."""
    try:
        if isinstance(address, int):
            raise ValueError
        return ctypes.c_uint32.from_buffer_copy(ipaddress.IPv4Address(address).packed).value
    except ValueError:
        raise Invalid(f"{address!r} is not an IPv4 address: write four numbers from 0 to 255, like '10.0.0.1'") from None


def gid_bytes(gid: Gid) -> ctypes.Array[ctypes.c_uint8]:
    """Returns the GID as 16 bytes in network order. A text is an IPv6 address, or 0x and up to 32 hexadecimal digits."""
    try:
        if isinstance(gid, str) and gid[:2].lower() == "0x":
            packed = int(gid, 16).to_bytes(16, "big")
        else:
            packed = ipaddress.IPv6Address(gid).packed
    except (ValueError, OverflowError):
        raise Invalid(f"{gid!r} is not a GID: write 0x and up to 32 hexadecimal digits, or like 'fe80::1'") from None
    return (ctypes.c_uint8 * 16).from_buffer_copy(packed)


def milliseconds(timeout: float) -> int:
    """Converts a time-out in seconds to the library's milliseconds: at least 1, at most 2**31 - 1 (24 days)."""
    if not timeout > 0:
        raise Invalid("a time-out is above 0")
    return max(1, int(min(timeout * 1000, 2**31 - 1)))


def c_text(text: bytes, what: str) -> bytes:
    """Returns the text. Raises Invalid if the library, written in C, would see only the start of it."""
    if b"\0" in text:
        raise Invalid(f"{what} has no NUL byte: {text!r} cannot be one")
    return text


def make_options(cached_only: bool, verify: bool, timeout: float, host: Optional[str], fresh: bool = False) -> library.Options:
    """Makes the library's options. At most one of `cached_only`, `verify` and `fresh` may be true: the library checks this."""
    flags = (1 if cached_only else 0) | (2 if verify else 0) | (4 if fresh else 0)
    host_bytes = c_text(host.encode(errors="surrogateescape"), "a host's name") if host else None
    return library.Options(ctypes.sizeof(library.Options), flags, milliseconds(timeout), 0, host_bytes)


def default_socket() -> str:
    path = ctypes.create_string_buffer(4096)
    library.lib.ats_default_socket(path, len(path))
    return os.fsdecode(path.value)


def last_error() -> str:
    return library.lib.ats_last_error().decode(errors="replace")


class Base:
    """The common part of Client and AsyncClient: opens and closes a client of the C library."""

    def __init__(self, socket: Optional[SocketPath] = None) -> None:
        self._client = ctypes.c_void_p()
        path = c_text(os.fsencode(socket), "a socket's path") if socket else None
        status = library.lib.ats_open(ctypes.byref(self._client), path)
        if status != 0:
            raise error_of(status, last_error())
        # Frees the client of the library once: at the first call, or when this object is deleted. Not when the interpreter
        # ends, because threads may still wait then.
        self._free = weakref.finalize(self, library.lib.ats_close, self._client)
        self._free.atexit = False
        self._process = os.getpid()
        self._lock = threading.RLock()  # guards the next two; not a Lock, because a signal handler may call close()
        self._running_calls = 0
        self._is_closed = False

    def close(self) -> None:
        """Closes the client. Any thread may call it. Questions that wait in other threads still get their answers. Later
        calls raise Invalid."""
        if os.getpid() == self._process:  # the child of a fork has no other threads, but may have a copy of their lock
            with self._lock:
                self._is_closed = True
                if self._running_calls > 0:
                    return  # the last of them frees the client
        self._free()

    def _call(self, function: Any, *arguments: Any) -> Any:
        """Calls a function of the library. Its first argument is the client."""
        if os.getpid() != self._process:
            raise Invalid("a child of fork() must open its own client")
        with self._lock:
            self._running_calls += 1
        try:
            if self._is_closed:
                raise Invalid("the client is closed")
            return function(self._client, *arguments)
        finally:
            with self._lock:
                self._running_calls -= 1
                must_free = self._is_closed and self._running_calls == 0
            if must_free:
                self._free()


class Client(Base):
    """Blocking calls. Any number of threads may use one client. A child of fork() opens its own client."""

    def __init__(self, socket: Optional[SocketPath] = None) -> None:
        super().__init__(socket)
        # For the tag of each question of the main thread: its answer, or None. Only the main thread uses these two. It has
        # several questions if a signal handler asks while the interrupted code waits.
        self._answers: dict[int, Optional[library.Answer]] = {}
        self._last_tag = 0

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def resolve(self, address: Address, *, cached_only: bool = False, verify: bool = False, fresh: bool = False,
                timeout: float = DEFAULT_TIMEOUT, host: Optional[str] = None) -> Answer:
        """Finds the GID of an IPv4 address. `fresh` asks the SA even if the cache has an answer. `timeout` is in seconds."""
        options = make_options(cached_only, verify, timeout, host, fresh)
        return answer_of(self._ask(library.lib.ats_resolve, library.lib.ats_submit_resolve, address_word(address), options))

    def reverse(self, gid: Gid, *, cached_only: bool = False, verify: bool = False, timeout: float = DEFAULT_TIMEOUT,
                host: Optional[str] = None) -> Answer:
        """Finds the IPv4 address of a GID. Has no `fresh`: `verify` asks the SA, too."""
        options = make_options(cached_only, verify, timeout, host)
        return answer_of(self._ask(library.lib.ats_reverse, library.lib.ats_submit_reverse, gid_bytes(gid), options))

    def path(self, destination: Destination, *, cached_only: bool = False, fresh: bool = False,
             timeout: float = DEFAULT_TIMEOUT, host: Optional[str] = None) -> Path:
        """Finds the path to an IPv4 address or a GID. `fresh` asks the SA even if the cache has an answer."""
        options, lib = make_options(cached_only, False, timeout, host, fresh), library.lib
        if is_address(destination):
            return path_of(self._ask(lib.ats_find_path, lib.ats_submit_path, address_word(destination), options))
        return path_of(self._ask(lib.ats_find_path_to_gid, lib.ats_submit_path_to_gid, gid_bytes(destination), options))

    def request(self, request: dict[str, Any], *, timeout: float = DEFAULT_TIMEOUT) -> dict[str, Any]:
        """Sends any request of docs/protocol.md, for example {"request": "status"}, and returns its answer. Ctrl-C
        takes effect after the call."""
        line = ctypes.c_void_p()
        text = json.dumps(request).encode()
        status = self._call(library.lib.ats_request, text, milliseconds(timeout), ctypes.byref(line))
        if status != 0:
            raise error_of(status, last_error())
        try:
            answer = json.loads(ctypes.string_at(line))
        finally:
            library.lib.ats_free(line)
        if "error" in answer:
            raise Refused(answer["error"])
        return answer

    def _ask(self, call: Any, submission: Any, subject: Any, options: library.Options) -> library.Answer:
        """Asks a question with one of the two functions of the library, and waits for the answer."""
        if threading.current_thread() is threading.main_thread():
            return self._call(self._ask_in_steps, submission, subject, options)
        answer = library.Answer()
        self._call(call, subject, ctypes.byref(options), ctypes.byref(answer))
        return answer

    def _ask_in_steps(self, client: ctypes.c_void_p, submission: Any, subject: Any, options: library.Options) -> library.Answer:
        """Waits in steps. Python handles signals in the main thread, and only between calls of the library. The library
        collects only answers for the main thread, because only this thread submits questions."""
        deadline = time.monotonic() + options.timeout_ms / 1000 + STEP_MILLISECONDS / 1000
        self._last_tag += 1
        tag = self._last_tag
        self._answers[tag] = None
        try:
            status = submission(client, subject, ctypes.byref(options), tag)
            if status != 0:
                raise error_of(status, last_error())
            while time.monotonic() < deadline:
                answer = library.Answer()
                count = library.lib.ats_wait(client, ctypes.byref(answer), 1, STEP_MILLISECONDS)
                if count > 0 and answer.tag in self._answers:  # not the answer to a question that Ctrl-C has ended
                    self._answers[answer.tag] = answer
                if self._answers[tag] is not None:
                    return self._answers[tag]
            raise NoAnswer("the service gave no answer in time")
        finally:
            del self._answers[tag]


class AsyncClient(Base):
    """The questions of Client, as coroutines for asyncio. Use an object in one event loop only. A child of fork() opens its
    own client."""

    def __init__(self, socket: Optional[SocketPath] = None) -> None:
        super().__init__(socket)
        # For the tag of each question: its future, and the function that converts the answer to the future's result.
        self._futures: dict[int, tuple[asyncio.Future[Any], Any]] = {}
        self._last_tag = 0
        self._loop: Optional[asyncio.AbstractEventLoop] = None

    async def __aenter__(self) -> AsyncClient:
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Closes the client, and cancels the questions that have no answer yet."""
        is_ours = os.getpid() == self._process  # a child of a fork would change the loop of its parent
        if self._loop and not self._loop.is_closed() and not self._is_closed and is_ours:
            self._loop.remove_reader(self._call(library.lib.ats_descriptor))
            for future, _ in self._futures.values():
                future.cancel()
        self._futures.clear()
        super().close()

    async def resolve(self, address: Address, *, cached_only: bool = False, verify: bool = False, fresh: bool = False,
                      timeout: float = DEFAULT_TIMEOUT, host: Optional[str] = None) -> Answer:
        """Finds the GID of an IPv4 address."""
        options = make_options(cached_only, verify, timeout, host, fresh)
        return await self._submit(library.lib.ats_submit_resolve, address_word(address), options)

    async def reverse(self, gid: Gid, *, cached_only: bool = False, verify: bool = False,
                      timeout: float = DEFAULT_TIMEOUT, host: Optional[str] = None) -> Answer:
        """Finds the IPv4 address of a GID."""
        options = make_options(cached_only, verify, timeout, host)
        return await self._submit(library.lib.ats_submit_reverse, gid_bytes(gid), options)

    async def path(self, destination: Destination, *, cached_only: bool = False, fresh: bool = False,
                   timeout: float = DEFAULT_TIMEOUT, host: Optional[str] = None) -> Path:
        """Finds the path to an IPv4 address or a GID."""
        options = make_options(cached_only, False, timeout, host, fresh)
        if is_address(destination):
            return await self._submit(library.lib.ats_submit_path, address_word(destination), options, path_of)
        return await self._submit(library.lib.ats_submit_path_to_gid, gid_bytes(destination), options, path_of)

    async def _submit(self, call: Any, subject: Any, options: library.Options, result_of: Any = answer_of) -> Any:
        if self._loop is None:
            self._loop = asyncio.get_running_loop()
            self._loop.add_reader(self._call(library.lib.ats_descriptor), self._collect)
        self._last_tag += 1
        tag = self._last_tag
        status = self._call(call, subject, ctypes.byref(options), tag)
        if status != 0:
            raise error_of(status, last_error())
        future = self._loop.create_future()
        self._futures[tag] = future, result_of
        try:
            return await future
        finally:
            self._futures.pop(tag, None)

    def _collect(self) -> None:
        answers = (library.Answer * 64)()
        for raw in answers[:self._call(library.lib.ats_collect, answers, len(answers))]:
            future, result_of = self._futures.get(raw.tag, (None, None))
            if future is None or future.done():
                continue
            try:
                future.set_result(result_of(raw))
            except Exception as error:  # the await in _submit() raises it
                future.set_exception(error)
