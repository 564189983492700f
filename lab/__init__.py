"""A network link with routers and hosts on it, made of kernel namespaces: see README.md here."""

from lab.lab import Lab
from lab.waiting import TimedOut

__all__ = ["Lab", "TimedOut"]
