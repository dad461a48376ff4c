"""The KelMsgFeaMessaging bus from Python.

Join the bus as an application, exchange the suite's messages (Text, Xml,
Kill, FileRecord) with the other processes, follow departures, and push and
pull files with verified transfers.  The bus is the one KELBUS_URL names.
"""

from kelmsg._kelmsg import (
    Application,
    BusError,
    Departure,
    FileRecord,
    Kill,
    Text,
    TransferError,
    Xml,
    is_shared,
    stamp,
    unstamp,
)

__all__ = [
    "Application",
    "BusError",
    "Departure",
    "FileRecord",
    "Kill",
    "Text",
    "TransferError",
    "Xml",
    "is_shared",
    "stamp",
    "unstamp",
]
