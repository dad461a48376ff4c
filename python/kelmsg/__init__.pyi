"""The KelMsgFeaMessaging bus from Python."""

from types import TracebackType
from typing import Callable, ClassVar, Literal, TypeVar, overload

class BusError(RuntimeError):
    """A call to the bus failed; the text says what, and why in the bus's words."""

class TransferError(RuntimeError):
    """A push or pull was not verified; the text is its one line."""

class Text:
    """A message of raw bytes."""

    data: bytes
    @overload
    def __init__(self, data: bytes) -> None: ...
    @overload
    def __init__(self, text: str) -> None: ...

class Xml:
    """An analysis message: one XML document, carried unparsed."""

    document: str
    def __init__(self, document: str) -> None: ...

class Kill:
    """A request to stop: soft (save and leave) or hard."""

    hard: bool
    def __init__(self, hard: bool = False) -> None: ...

class FileRecord:
    """One step of a chunked file transfer, as it travels."""

    SEND_REQUEST: ClassVar[int]
    NOTIFY: ClassVar[int]
    CHUNK: ClassVar[int]
    SEND_COMPLETION: ClassVar[int]
    ISEND_COMPLETION: ClassVar[int]
    RECEIVE_COMPLETION: ClassVar[int]
    data_type: int
    source_application: str
    source_base_dir: str
    source_job_dir: str
    source_file_name: str
    target_application: str
    target_base_dir: str
    target_job_dir: str
    target_file_name: str
    chunk_id: int
    chunk: bytes
    def __init__(
        self,
        data_type: int,
        source_application: str = "",
        source_base_dir: str = "",
        source_job_dir: str = "",
        source_file_name: str = "",
        target_application: str = "",
        target_base_dir: str = "",
        target_job_dir: str = "",
        target_file_name: str = "",
        chunk_id: int = 0,
        chunk: bytes = b"",
    ) -> None: ...

class Departure:
    """A process that left the bus."""

    @property
    def pid(self) -> int: ...
    @property
    def application(self) -> str: ...
    @property
    def host(self) -> str: ...
    @property
    def user(self) -> str: ...

_Message = TypeVar("_Message", Text, Xml, Kill, FileRecord)

class Application:
    """This process on the bus as one application.

    Joins on construction and leaves on close(), at the end of a with block
    or when garbage-collected.  One open application per process.  Handlers
    run inside wait(), push() and pull(), on the thread that calls them; an
    exception in a handler is reported through sys.unraisablehook and the
    bus goes on.
    """

    def __init__(
        self,
        name: str,
        *,
        take_over: bool = False,
        transfers: bool = True,
        keep_partial: bool = False,
    ) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def open(self) -> bool: ...
    def close(self) -> None: ...
    def __enter__(self) -> Application: ...
    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc: BaseException | None,
        traceback: TracebackType | None,
    ) -> Literal[False]: ...
    def send(self, target: str, message: Text | Xml | Kill | FileRecord) -> None: ...
    def handle(
        self, message_type: type[_Message], handler: Callable[[_Message, str], object] | None
    ) -> None: ...
    def on_departure(self, handler: Callable[[Departure], object] | None) -> None: ...
    def wait(
        self, until: Callable[[], object] | None = None, timeout: float | None = None
    ) -> bool: ...
    def push(
        self,
        application: str,
        source: str,
        target: str,
        *,
        base_dir: str = "",
        job_dir: str = "",
        peer_base_dir: str = "",
        peer_job_dir: str = "",
        wait: bool = True,
        timeout: float | None = 60.0,
        progress: Callable[[int], object] | None = None,
    ) -> str:
        """Sends this side's file `source` to `application` as `target`."""
    def pull(
        self,
        application: str,
        source: str,
        target: str,
        *,
        base_dir: str = "",
        job_dir: str = "",
        peer_base_dir: str = "",
        peer_job_dir: str = "",
        timeout: float | None = 60.0,
        progress: Callable[[int], object] | None = None,
    ) -> str:
        """Fetches the file `source` of `application` into this side's `target`."""

def stamp(base_dir: str, job_dir: str, name: str) -> None: ...
def is_shared(base_dir: str, job_dir: str, name: str) -> bool: ...
def unstamp(base_dir: str, job_dir: str, name: str) -> None: ...
