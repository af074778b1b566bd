"""Named, fixed-size shared-memory segments shared with C++ programs that use spf-sharedmemory.

A SharedMemory object lends the segment's bytes through the buffer protocol:
memoryview(segment) and numpy.frombuffer(segment, dtype) map them with no copy.
"""

from types import TracebackType
from typing import ClassVar, Optional, Type

class Backend:
    """The system facility a segment lives in: POSIX (/dev/shm) or SYSV (ipcs -m)."""

    POSIX: ClassVar[Backend]
    SYSV: ClassVar[Backend]
    @property
    def name(self) -> str: ...
    @property
    def value(self) -> int: ...
    def __int__(self) -> int: ...

class SharedMemory:
    """A handle to one shared-memory segment, mapped into this process.

    close(), leaving a with-block, or the collection of the last reference unmaps the
    segment and removes it when it is marked for deletion (by default: when this process
    created it). Supports the buffer protocol (writable bytes, length = size); BufferError
    when not attached or closed.
    """

    def __init__(
        self,
        name: str,
        size: int,
        trustee: str = "",
        backend: Backend = Backend.POSIX,
        create: Optional[bool] = None,
    ) -> None:
        """Open "/" + name as given: create None creates or finds, True creates, False finds.

        Raises RuntimeError when a system call fails or the sizes disagree, ValueError when
        trustee names no group.
        """
    @staticmethod
    def create(
        name: str, size: int, trustee: str = "", backend: Backend = Backend.POSIX
    ) -> SharedMemory:
        """Create only, under derive_segment_name(name, trustee); not attached when taken."""
    @staticmethod
    def find(
        name: str, size: int, trustee: str = "", backend: Backend = Backend.POSIX
    ) -> SharedMemory:
        """Find only, under the derived name; not attached when no segment has it."""
    @staticmethod
    def create_or_find(
        name: str, size: int, trustee: str = "", backend: Backend = Backend.POSIX
    ) -> SharedMemory:
        """Create or find under the derived name."""
    @property
    def is_creator(self) -> bool:
        """Whether this process created the segment. ValueError once closed."""
    @property
    def is_attached(self) -> bool:
        """Whether the segment is mapped into this process; False once closed."""
    @property
    def owner(self) -> str:
        """The user owning the segment, asked of the system on each access; "" for none."""
    @property
    def trustee(self) -> str:
        """The group the system records for the segment, asked on each access; "" for none."""
    def mark_for_deletion(self) -> None:
        """Have the segment removed from the system at close, whatever the role."""
    def make_persistent(self) -> None:
        """Creator only: keep the segment after close. RuntimeError on a finder."""
    def reserve(self) -> None:
        """Back every byte with memory now; RuntimeError (error 28) when /dev/shm is full."""
    def close(self) -> None:
        """Unmap, and remove when marked for deletion. BufferError while a buffer is alive."""
    def __enter__(self) -> SharedMemory: ...
    def __exit__(
        self,
        exc_type: Optional[Type[BaseException]],
        exc_value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None: ...
    def __buffer__(self, flags: int) -> memoryview: ...

def derive_segment_name(name: str, trustee: str = "") -> str:
    """The name (without "/") that create, find and create_or_find open: 1-16 hex digits."""

def current_user_name() -> str:
    """ "euid: " and the effective user id, as the library names the current user."""

def log_to_stderr() -> None:
    """Send the library's records to stderr ("spf_sharedmemory: " + text); once is enough."""
